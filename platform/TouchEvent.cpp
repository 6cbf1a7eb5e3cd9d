#include "platform/TouchEvent.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/input.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "platform/DevicePath.h"

namespace {

constexpr char kInputDir[] = "/dev/input";
// Longest directory part of a device path that searchTouchDevice forms.
constexpr size_t kMaxInputDirLength = 100;
// The touch controller's evdev name contains this.
constexpr char kTouchDeviceName[] = "fts";

}  // namespace

TouchEvent TouchEvent::touchInstance{android::base::unique_fd()};

TouchEvent::TouchEvent() {
    if (searchTouchDevice() != 0) return;
    startListener();
}

TouchEvent::TouchEvent(android::base::unique_fd device) : mDevice(std::move(device)) {
    if (mDevice.get() < 0) return;
    mPollRecord = std::make_unique<pollfd>(pollfd{mDevice.get(), POLLIN, 0});
    startListener();
}

TouchEvent::~TouchEvent() {
    if (mRunning) {
        mRunning = false;
        // A listener that no client ever woke would stay parked for ever and the join with it;
        // woken, it sees the stop and leaves without polling. One blocked in its poll still
        // leaves only after the next input event.
        touchNotify();
        if (mThread.joinable()) mThread.join();
        mDevice.reset();
        mPollRecord.reset();
    }
}

void TouchEvent::startListener() {
    mRunning = true;
    mListening = false;
    try {
        mThread = std::thread(&TouchEvent::touchEventMain, this);
    } catch (const std::system_error& e) {
        mRunning = false;
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

int TouchEvent::searchTouchDevice() {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(pwr::devicePath(kInputDir).c_str()), closedir);
    if (dir == nullptr) return -1;
    const std::string dirPart = std::string(kInputDir).substr(0, kMaxInputDirLength);
    while (const dirent* entry = readdir(dir.get())) {
        if (strncmp(entry->d_name, ".", 10) == 0 || strncmp(entry->d_name, "..", 10) == 0) {
            continue;
        }
        std::string path = dirPart + "/" + entry->d_name;
        if (checkTouchDevice(path.data()) == 0) {
            dir.reset();
            // A running listener keeps the record it polls (checkTouchDevice kept its device too).
            if (!mRunning) mPollRecord = std::make_unique<pollfd>(pollfd{mDevice.get(), POLLIN, 0});
            return 0;
        }
    }
    return -1;
}

int TouchEvent::checkTouchDevice(char* path) {
    android::base::unique_fd fd(
            TEMP_FAILURE_RETRY(open(pwr::devicePath(path).c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd.get() < 0) return -1;
    // Only an evdev device answers both; a plain file or another character device does not.
    int version = 0;
    input_id id = {};
    if (ioctl(fd.get(), EVIOCGVERSION, &version) < 0 || ioctl(fd.get(), EVIOCGID, &id) < 0) {
        return -1;
    }
    char name[127] = {};
    (void)ioctl(fd.get(), EVIOCGNAME(sizeof(name) - 1), name);
    name[sizeof(name) - 1] = '\0';
    if (name[0] == '\0' || strstr(name, kTouchDeviceName) == nullptr) return -1;
    // The listener may be blocked in its poll on the held descriptor, which therefore stays open
    // and in place while it runs; the device just found is closed again.
    if (!mRunning) mDevice = std::move(fd);
    return 0;
}

void TouchEvent::parkUntilWoken() {
    pwr::MutexLock lock(mParkMutex);
    while (mWake == 0) mParkCondition.wait(mParkMutex);
    mListening = true;
}

void TouchEvent::touchEventMain() {
    while (mRunning) {
        if (!mListening) {
            parkUntilWoken();
            if (!mRunning) break;
        }
        // No timeout: the thread sleeps in the kernel until the next input event.
        mPollRecord->revents = 0;
        poll(mPollRecord.get(), 1, -1);
        if ((mPollRecord->revents & POLLIN) == 0) continue;

        // Whole records of the platform's own layout (16 bytes on a 32-bit device).
        input_event event;
        if (read(mDevice.get(), &event, sizeof(event)) != static_cast<ssize_t>(sizeof(event))) {
            continue;
        }
        if (event.type != EV_ABS || event.code != ABS_MT_TRACKING_ID) continue;
        if (event.value == -1) {
            // The contact ended.
            mIdle = 1;
            dispatch(kTouchUp);
        } else {
            mIdle = 0;
            dispatch(kTouchDown);
        }
    }
}

void TouchEvent::dispatch(int event) {
    pwr::MutexLock lock(mRegistrationMutex);
    for (Touchevent_s* entry : mRegistrations) {
        if (entry->enabled != 0 && entry->callback != nullptr) {
            entry->callback(entry->context, event);
        }
    }
}

Touchevent_s* TouchEvent::touchEventRegister(void (*callback)(void*, int), void* context, int id) {
    if (context == nullptr) return nullptr;
    pwr::MutexLock lock(mRegistrationMutex);
    for (const Touchevent_s* entry : mRegistrations) {
        if (entry->id == id) return nullptr;
    }
    auto* entry = static_cast<Touchevent_s*>(malloc(sizeof(Touchevent_s)));
    if (entry == nullptr) return nullptr;
    *entry = Touchevent_s{callback, id, context, 0};
    try {
        mRegistrations.push_back(entry);
    } catch (const std::bad_alloc&) {
        free(entry);
        return nullptr;
    }
    return entry;
}

int TouchEvent::touchEventDeregister(Touchevent_s* entry) {
    if (entry == nullptr) return 0;
    const int id = entry->id;
    pwr::MutexLock lock(mRegistrationMutex);
    // The removed records are the client's to free.
    mRegistrations.erase(std::remove_if(mRegistrations.begin(), mRegistrations.end(),
                                        [id](const Touchevent_s* r) { return r->id == id; }),
                         mRegistrations.end());
    return 1;
}

bool TouchEvent::isTouchRegistered(Touchevent_s* entry) {
    // Lock-free on purpose: callbacks run with mRegistrationMutex held and may ask.
    if (entry == nullptr) return false;
    return std::any_of(mRegistrations.begin(), mRegistrations.end(),
                       [entry](const Touchevent_s* r) { return r->id == entry->id; });
}

void TouchEvent::touchNotify() {
    pwr::MutexLock lock(mParkMutex);
    mWake = 1;
    mParkCondition.notify_all();
}

void TouchEvent::touchEventNotify(Touchevent_s* entry, bool enable) {
    {
        pwr::MutexLock lock(mRegistrationMutex);
        int summary = 0;
        if (entry != nullptr) {
            // Taken before entry's own flag changes: disabling the last enabled registration
            // parks the listener only at the next call. Kept on purpose.
            for (const Touchevent_s* r : mRegistrations) summary |= r->enabled;
            if (summary == 0 || mRegistrations.empty()) mListening = false;
        }
        mEnabledSummary = summary;
    }
    if (!mListening && enable) touchNotify();
    if (entry != nullptr) {
        pwr::MutexLock lock(mRegistrationMutex);
        entry->enabled = enable ? 1 : 0;
    }
}
