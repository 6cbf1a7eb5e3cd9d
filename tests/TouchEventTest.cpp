// The touch event service: device search against a fake /dev/input, registrations, and a real
// listener thread fed input_event records through a FIFO that stands in for the touch device.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/input.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <android-base/unique_fd.h>
#include <dlfcn.h>
#include <stdarg.h>
#include <sys/stat.h>

#include "platform/TouchEvent.h"
#include "tests/support/DeviceTree.h"

// Test access to the service's private state.
class TouchEventTestPeer {
  public:
    explicit TouchEventTestPeer(TouchEvent& touch) : t(touch) {}

    bool running() const { return t.mRunning; }
    bool listening() const { return t.mListening; }
    bool hasListener() const { return t.mThread.joinable(); }
    bool hasPollRecord() const { return t.mPollRecord != nullptr; }
    // The listener's poll record and device descriptor.
    std::pair<const pollfd*, int> polled() const { return {t.mPollRecord.get(), t.mDevice.get()}; }
    bool woken() {
        pwr::MutexLock lock(t.mParkMutex);
        return t.mWake != 0;
    }
    int enabledSummary() {
        pwr::MutexLock lock(t.mRegistrationMutex);
        return t.mEnabledSummary;
    }
    std::vector<int> registeredIds() {
        pwr::MutexLock lock(t.mRegistrationMutex);
        std::vector<int> ids;
        for (const Touchevent_s* entry : t.mRegistrations) ids.push_back(entry->id);
        return ids;
    }

  private:
    TouchEvent& t;
};

// A FIFO under a fake device tree's /dev/input answers the evdev queries as a touch controller
// named "fts_ts"; every other ioctl goes to the C library. The plug-in's calls bind to this
// definition, which the executable exports. Declared as each C library declares it.
#ifdef __BIONIC__
extern "C" int ioctl(int fd, int request, ...) {
#else
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
#endif
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    struct stat st = {};
    char link[PATH_MAX] = {};
    if (_IOC_TYPE(request) == 'E' && fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) &&
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link) - 1) > 0 &&
        strstr(link, "/dev/input/") != nullptr) {
        constexpr char kName[] = "fts_ts";
        switch (_IOC_NR(request)) {
            case _IOC_NR(EVIOCGVERSION):
                *static_cast<int*>(arg) = EV_VERSION;
                return 0;
            case _IOC_NR(EVIOCGID):
                *static_cast<input_id*>(arg) = input_id{BUS_I2C, 1, 1, 1};
                return 0;
            case _IOC_NR(EVIOCGNAME(0)): {
                const size_t n = std::min(sizeof(kName), static_cast<size_t>(_IOC_SIZE(request)));
                memcpy(arg, kName, n);
                return static_cast<int>(n);
            }
        }
    }
    using Ioctl = int (*)(int, decltype(request), ...);
    static const auto real = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    return real(fd, request, arg);
}

namespace {

using namespace std::chrono_literals;
using pwr::test::DeviceTree;

constexpr auto kWait = 5s;
constexpr ssize_t kRecordSize = sizeof(input_event);

// Polls `predicate` until it holds or kWait passes.
bool waitUntil(const std::function<bool()>& predicate) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Whether a thread of this process sleeps in poll(2). The listener is the only thread of a test
// that polls, so this tells that it has gone round its loop and waits for the next record.
// Under an emulator (qemu-user) /proc shows the build machine's system call, whose number is not
// the program's; the kernel's wait channel in the poll code tells the same there.
bool listenerBlockedInPoll() {
    const bool emulated = getenv("PWR_TEST_EMULATOR") != nullptr;
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
        if (emulated) {
            std::ifstream wchanFile(task.path() / "wchan");
            std::string wchan;
            if ((wchanFile >> wchan) && (wchan.rfind("poll_schedule_timeout", 0) == 0 ||
                                         wchan.rfind("do_sys_poll", 0) == 0)) {
                return true;
            }
            continue;
        }
        std::ifstream syscallFile(task.path() / "syscall");
        long number = -1;
        if (!(syscallFile >> number)) continue;
#ifdef SYS_poll
        if (number == SYS_poll) return true;
#endif
        if (number == SYS_ppoll) return true;
    }
    return false;
}

// Every callback call, in order, as "<client><event>" ("A1" is client A told of a touch down).
class CallLog {
  public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(entry);
    }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }
    bool waitForCount(size_t count) {
        return waitUntil([&] { return calls().size() >= count; });
    }

  private:
    std::mutex mMutex;
    std::vector<std::string> mCalls;
};

struct Client {
    CallLog* log;
    std::string name;
};

void recordTouch(void* context, int event) {
    auto* client = static_cast<Client*>(context);
    client->log->add(client->name + std::to_string(event));
}

// Stands in for the touch device: a FIFO at kTouchNode of a fake device tree, which the
// service's search finds and reads; the test writes whole input_event records of this platform's
// size into it.
constexpr char kTouchNode[] = "/dev/input/event3";

class FakeTouchDevice {
  public:
    FakeTouchDevice() {
        tree.mkdirs("/dev/input");
        if (mkfifo(tree.hostPath(kTouchNode).c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo failed");
        }
        // Read-write, so that it opens without waiting for a reader and the service's read-only
        // open does not wait for a writer; kept open, as a FIFO without writers polls as hung up.
        mWriteEnd.reset(open(tree.hostPath(kTouchNode).c_str(), O_RDWR | O_CLOEXEC));
        if (mWriteEnd.get() < 0) throw std::runtime_error("cannot open the FIFO");
    }

    void send(uint16_t type, uint16_t code, int32_t value) {
        input_event event = {};
        event.type = type;
        event.code = code;
        event.value = value;
        sendBytes(&event, sizeof(event));
    }
    void down(int32_t trackingId = 5) { send(EV_ABS, ABS_MT_TRACKING_ID, trackingId); }
    void up() { send(EV_ABS, ABS_MT_TRACKING_ID, -1); }
    void sendBytes(const void* data, size_t size) {
        ASSERT_EQ(write(mWriteEnd.get(), data, size), static_cast<ssize_t>(size))
                << strerror(errno);
    }
    // Bytes written and not yet read by the listener.
    int pending() const {
        int bytes = -1;
        return ioctl(mWriteEnd.get(), FIONREAD, &bytes) == 0 ? bytes : -1;
    }

    DeviceTree tree;

  private:
    android::base::unique_fd mWriteEnd;
};

using Registration = std::unique_ptr<Touchevent_s, decltype(&free)>;

// A service that found a FakeTouchDevice and listens on it, with clients logging into one
// CallLog. The service is destroyed before the registrations, which the service never frees.
class TouchListener : public ::testing::Test {
  protected:
    void SetUp() override {
        touch = std::make_unique<TouchEvent>();
        ASSERT_TRUE(TouchEventTestPeer(*touch).hasListener());
    }

    Touchevent_s* add(const std::string& name, int id) {
        clients.push_back(std::make_unique<Client>(Client{&calls, name}));
        Touchevent_s* entry = touch->touchEventRegister(recordTouch, clients.back().get(), id);
        if (entry != nullptr) registrations.emplace_back(entry, free);
        return entry;
    }

    // A listener blocked in its poll leaves only on the next record: destroy the service on the
    // side and feed it records (no-ops) until it is gone.
    void TearDown() override {
        if (touch == nullptr) return;
        auto destroyed = std::async(std::launch::async, [this] { touch.reset(); });
        const auto deadline = std::chrono::steady_clock::now() + kWait;
        while (destroyed.wait_for(10ms) != std::future_status::ready) {
            if (std::chrono::steady_clock::now() >= deadline) {
                ADD_FAILURE() << "the listener did not stop";
                std::_Exit(1);  // joining would hang for ever
            }
            device.send(EV_SYN, SYN_REPORT, 0);
        }
    }

    TouchEventTestPeer peer() { return TouchEventTestPeer(*touch); }

    CallLog calls;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<Registration> registrations;
    FakeTouchDevice device;
    std::unique_ptr<TouchEvent> touch;
};

// ---- Device search and registrations (no listener needed) ----

TEST(TouchEvent, WithoutAnEvdevTouchDeviceNoListenerStarts) {
    DeviceTree tree;
    {
        TouchEvent touch;  // no /dev/input at all
        EXPECT_FALSE(TouchEventTestPeer(touch).hasListener());
        EXPECT_EQ(touch.searchTouchDevice(), -1);
    }
    // Regular files and a directory: open succeeds, the evdev queries fail on all of them.
    tree.write("/dev/input/event0", "fts_ts\n");
    tree.mkdirs("/dev/input/by-path");
    TouchEvent touch;
    TouchEventTestPeer peer(touch);
    EXPECT_FALSE(peer.running());
    EXPECT_FALSE(peer.hasListener());
    EXPECT_FALSE(peer.hasPollRecord());
    for (std::string path : {"/dev/input/event0", "/dev/input/by-path", "/dev/input/event9"}) {
        EXPECT_EQ(touch.checkTouchDevice(path.data()), -1) << path;
    }
}

TEST(TouchEvent, AnInvalidDescriptorStartsNoListenerAndKeepsADeviceFoundLater) {
    TouchEvent touch{android::base::unique_fd()};
    TouchEventTestPeer peer(touch);
    EXPECT_FALSE(peer.running());
    EXPECT_FALSE(peer.hasListener());
    FakeTouchDevice device;
    ASSERT_EQ(touch.searchTouchDevice(), 0);
    ASSERT_TRUE(peer.hasPollRecord());
    EXPECT_EQ(peer.polled().first->fd, peer.polled().second);
    EXPECT_FALSE(peer.hasListener());
}

TEST(TouchEvent, RegistrationsAreKeptInOrderAndMatchedById) {
    TouchEvent touch{android::base::unique_fd()};
    TouchEventTestPeer peer(touch);
    CallLog log;
    Client a{&log, "A"};
    EXPECT_EQ(touch.touchEventRegister(recordTouch, nullptr, 1), nullptr);
    std::vector<Registration> owned;
    for (int id : {1, 2, 3, 4}) {
        owned.emplace_back(touch.touchEventRegister(recordTouch, &a, id), free);
        ASSERT_NE(owned.back(), nullptr);
    }
    EXPECT_EQ(touch.touchEventRegister(recordTouch, &a, 1), nullptr) << "a duplicate id";

    EXPECT_EQ(touch.touchEventDeregister(nullptr), 0);
    EXPECT_FALSE(touch.isTouchRegistered(nullptr));
    EXPECT_EQ(touch.touchEventDeregister(owned[1].get()), 1);
    EXPECT_FALSE(touch.isTouchRegistered(owned[1].get()));
    EXPECT_TRUE(touch.isTouchRegistered(owned[0].get()));
    Touchevent_s sameId = {recordTouch, 3, &a, 0};  // another record carrying id 3
    EXPECT_TRUE(touch.isTouchRegistered(&sameId));
    EXPECT_EQ(touch.touchEventDeregister(&sameId), 1);
    EXPECT_EQ(touch.touchEventDeregister(owned[1].get()), 1) << "an unknown id is accepted";
    Registration again(touch.touchEventRegister(recordTouch, &a, 2), free);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(peer.registeredIds(), (std::vector<int>{1, 4, 2}));
}

// Each notify call, and the enabled summary it leaves (taken over the flags before the call's own
// change; a null entry resets it), whether the listener was woken, and the two flags.
TEST(TouchEvent, NotifyTakesTheSummaryBeforeItsChangeAndOnlyEnablingWakes) {
    TouchEvent touch{android::base::unique_fd()};
    TouchEventTestPeer peer(touch);
    CallLog log;
    Client client{&log, "A"};
    Registration a(touch.touchEventRegister(recordTouch, &client, 1), free);
    Registration b(touch.touchEventRegister(recordTouch, &client, 2), free);
    ASSERT_TRUE(a && b);
    const struct {
        Touchevent_s* entry;
        bool enable;
        int summary;
        bool woken;
        int aEnabled;
        int bEnabled;
    } steps[] = {
            {a.get(), false, 0, false, 0, 0}, {nullptr, false, 0, false, 0, 0},
            {a.get(), true, 0, true, 1, 0},   {b.get(), true, 1, true, 1, 1},
            {a.get(), false, 1, true, 0, 1},  {b.get(), false, 1, true, 0, 0},
            {b.get(), false, 0, true, 0, 0},  {a.get(), true, 0, true, 1, 0},
            {b.get(), true, 1, true, 1, 1},   {nullptr, false, 0, true, 1, 1},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        touch.touchEventNotify(steps[i].entry, steps[i].enable);
        EXPECT_EQ(peer.enabledSummary(), steps[i].summary) << "step " << i;
        EXPECT_EQ(peer.woken(), steps[i].woken) << "step " << i;
        EXPECT_EQ(a->enabled, steps[i].aEnabled) << "step " << i;
        EXPECT_EQ(b->enabled, steps[i].bEnabled) << "step " << i;
    }
    TouchEvent other{android::base::unique_fd()};
    other.touchEventNotify(nullptr, true);
    EXPECT_TRUE(TouchEventTestPeer(other).woken());
}

// ---- The listener thread ----

// Only a tracking-id record of EV_ABS is a touch, -1 ending the contact; a short record is
// skipped. Clients A (id 10) and C (id 30) are enabled, B (id 20) is only registered.
TEST_F(TouchListener, RecordsReachTheEnabledRegistrationsInOrder) {
    Touchevent_s* a = add("A", 10);
    Touchevent_s* b = add("B", 20);
    Touchevent_s* c = add("C", 30);
    ASSERT_TRUE(a && b && c);
    touch->touchEventNotify(c, true);
    touch->touchEventNotify(a, true);
    input_event shortRecord = {};
    shortRecord.type = EV_ABS;
    shortRecord.code = ABS_MT_TRACKING_ID;
    shortRecord.value = 3;
    device.sendBytes(&shortRecord, sizeof(shortRecord) - 4);
    ASSERT_TRUE(waitUntil([&] { return device.pending() == 0; }));
    device.down(0);
    device.up();
    device.down(7);
    device.send(EV_ABS, ABS_MT_POSITION_X, 540);
    device.send(EV_ABS, ABS_MT_PRESSURE, 40);
    device.send(EV_ABS, ABS_MT_SLOT, -1);
    device.send(EV_KEY, BTN_TOUCH, 1);
    device.send(EV_KEY, ABS_MT_TRACKING_ID, -1);
    device.send(EV_SYN, SYN_REPORT, 0);
    device.up();  // marks the end: everything before it has been read
    ASSERT_TRUE(calls.waitForCount(8));
    EXPECT_EQ(calls.calls(),
              (std::vector<std::string>{"A1", "C1", "A2", "C2", "A1", "C1", "A2", "C2"}));
}

TEST_F(TouchListener, ParksUntilWokenAndStaysAwakeOnceWoken) {
    TouchEventTestPeer p = peer();
    EXPECT_TRUE(p.running());
    EXPECT_FALSE(p.listening());
    Touchevent_s* a = add("A", 1);
    Touchevent_s* b = add("B", 2);
    ASSERT_TRUE(a && b);

    // Parked: a record waits unread, and disabling wakes nothing.
    device.send(EV_ABS, ABS_MT_POSITION_X, 1);
    touch->touchEventNotify(a, false);
    EXPECT_FALSE(p.woken());
    EXPECT_EQ(device.pending(), kRecordSize);

    // Enabling wakes the listener, which reads what is waiting and then listens.
    touch->touchEventNotify(a, true);
    ASSERT_TRUE(waitUntil([&] { return device.pending() == 0; }));
    EXPECT_TRUE(p.listening());
    device.down();
    ASSERT_TRUE(calls.waitForCount(1));
    ASSERT_TRUE(waitUntil(listenerBlockedInPoll));

    // Disabling the last enabled registration leaves the listener listening until the next
    // call, which asks it to park after its current poll.
    touch->touchEventNotify(a, false);
    EXPECT_TRUE(p.listening());
    EXPECT_EQ(p.enabledSummary(), 1);
    touch->touchEventNotify(a, false);
    EXPECT_EQ(p.enabledSummary(), 0);
    EXPECT_FALSE(p.listening());

    // The wake is never cleared, so the park after this record returns at once and the
    // listener listens again; with nothing enabled it calls nobody.
    device.up();
    ASSERT_TRUE(waitUntil([&] { return p.listening(); }));
    EXPECT_EQ(device.pending(), 0);

    // B's down arrives after A's up has been handled: A was not called for it.
    touch->touchEventNotify(b, true);
    device.down();
    ASSERT_TRUE(calls.waitForCount(2));
    touch->touchEventNotify(a, true);
    device.up();
    ASSERT_TRUE(calls.waitForCount(4));
    EXPECT_EQ(calls.calls(), (std::vector<std::string>{"A1", "B1", "A2", "B2"}));
}

TEST_F(TouchListener, DestructionWaitsInPollForOneMoreEvent) {
    Touchevent_s* a = add("A", 1);
    ASSERT_NE(a, nullptr);
    touch->touchEventNotify(a, true);
    device.down();
    ASSERT_TRUE(calls.waitForCount(1));
    ASSERT_TRUE(waitUntil(listenerBlockedInPoll));

    auto destroyed = std::async(std::launch::async, [this] { touch.reset(); });
    // The listener is blocked in a poll without timeout: the destructor cannot finish yet.
    EXPECT_EQ(destroyed.wait_for(100ms), std::future_status::timeout);
    device.up();
    ASSERT_EQ(destroyed.wait_for(kWait), std::future_status::ready);
    // The record that unblocked the poll was still handled before the listener left.
    EXPECT_EQ(calls.calls(), (std::vector<std::string>{"A1", "A2"}));
}

TEST_F(TouchListener, DestructionOfAParkedListenerReturns) {
    Touchevent_s* a = add("A", 1);
    ASSERT_NE(a, nullptr);
    device.down();
    auto destroyed = std::async(std::launch::async, [this] { touch.reset(); });
    ASSERT_EQ(destroyed.wait_for(kWait), std::future_status::ready);
    // Woken only to stop, it never polled: the record is still unread.
    EXPECT_EQ(device.pending(), kRecordSize);
    EXPECT_TRUE(calls.calls().empty());
}

}  // namespace
