// POSIX timers for test programs, on std::thread (see ThreadTimers.h for why and what is kept).
//
// One scheduler thread per process sleeps until the earliest armed expiry and starts a detached
// thread for each expiry that is due, as the C library's helper thread does for SIGEV_THREAD.

#include "tests/support/ThreadTimers.h"
#include "tests/support/TimerSyscalls.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Notify = void (*)(sigval);

constexpr long kNanosPerSecond = 1000000000L;

struct ThreadTimer {
    clockid_t clock;
    Notify notify;
    sigval value;
    bool armed = false;
    Clock::time_point due;
    Clock::duration period = Clock::duration::zero();
    int overrun = 0;        // expiries skipped before the last one delivered
    uint64_t expiries = 0;  // expiries handed to the notify function
};

bool validTime(const timespec& t) {
    return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < kNanosPerSecond;
}

bool isZero(const timespec& t) {
    return t.tv_sec == 0 && t.tv_nsec == 0;
}

Clock::duration toDuration(const timespec& t) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(t.tv_sec) +
                                                       std::chrono::nanoseconds(t.tv_nsec));
}

timespec toTimespec(Clock::duration d) {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
    timespec t{};
    t.tv_sec = static_cast<time_t>(ns / kNanosPerSecond);
    t.tv_nsec = static_cast<long>(ns % kNanosPerSecond);
    return t;
}

// Clocks whose timers this file runs: for all of them a relative time is a plain duration.
bool ownClock(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME;
}

int fail(int error) {
    errno = error;
    return -1;
}

template <typename Fn>
Fn libcFunction(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

class TimerService {
  public:
    // Never destroyed: callbacks may still be finishing while the process exits.
    static TimerService& instance() {
        static TimerService* service = new TimerService();
        return *service;
    }

    int create(clockid_t clock, const sigevent& event, timer_t* id) {
        auto timer = std::make_unique<ThreadTimer>();
        timer->clock = clock;
        timer->notify = event.sigev_notify_function;
        timer->value = event.sigev_value;
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mSchedulerStarted) {
            try {
                std::thread(&TimerService::run, this).detach();
            } catch (const std::system_error&) {
                return fail(EAGAIN);
            }
            mSchedulerStarted = true;
        }
        *id = reinterpret_cast<timer_t>(timer.get());
        mTimers.emplace(timer.get(), std::move(timer));
        return 0;
    }

    // Whether `id` names a timer of this file (else it came from the C library).
    bool owns(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        return find(id) != nullptr;
    }

    int settime(timer_t id, int flags, const itimerspec& spec, itimerspec* old) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        if (timer == nullptr) return fail(EINVAL);
        if (old != nullptr) *old = current(*timer);
        timer->overrun = 0;
        if (isZero(spec.it_value)) {
            timer->armed = false;
            return 0;
        }
        Clock::duration delay = toDuration(spec.it_value);
        if ((flags & TIMER_ABSTIME) != 0) {
            timespec now{};
            clock_gettime(timer->clock, &now);
            const auto absolute = std::chrono::seconds(spec.it_value.tv_sec) +
                                  std::chrono::nanoseconds(spec.it_value.tv_nsec);
            const auto sinceEpoch =
                    std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
            delay = std::max(Clock::duration::zero(),
                             std::chrono::duration_cast<Clock::duration>(absolute - sinceEpoch));
        }
        timer->due = now() + delay;
        timer->period = toDuration(spec.it_interval);
        timer->armed = true;
        mWake.notify_one();
        return 0;
    }

    int gettime(timer_t id, itimerspec* out) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        if (timer == nullptr) return fail(EINVAL);
        *out = current(*timer);
        return 0;
    }

    int getoverrun(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        if (timer == nullptr) return fail(EINVAL);
        return timer->overrun;
    }

    int remove(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mTimers.erase(reinterpret_cast<ThreadTimer*>(id)) == 0) return fail(EINVAL);
        return 0;
    }

    uint64_t expiries(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        return timer != nullptr ? timer->expiries : 0;
    }

    int liveCount() {
        std::lock_guard<std::mutex> lock(mMutex);
        return static_cast<int>(mTimers.size());
    }

    int armedCount() {
        std::lock_guard<std::mutex> lock(mMutex);
        int n = 0;
        for (const auto& entry : mTimers) n += entry.second->armed ? 1 : 0;
        return n;
    }

    bool waitIdle(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mIdle.wait_for(lock, timeout, [this] { return mRunning == 0; });
    }

    // Virtual time: timers stop following the clock and expire only in advance().
    void setVirtual(bool on) {
        std::lock_guard<std::mutex> lock(mMutex);
        const Clock::time_point real = Clock::now();
        if (on == mVirtual) return;
        // Armed timers keep the time they had left.
        for (auto& entry : mTimers) {
            ThreadTimer& timer = *entry.second;
            timer.due = on ? timer.due : real + (timer.due - mVirtualNow);
        }
        mVirtualNow = real;
        mVirtual = on;
        mWake.notify_one();
    }

    // Delivers, on the calling thread and in due order, every expiry up to `by` from now.
    void advance(Clock::duration by) {
        std::unique_lock<std::mutex> lock(mMutex);
        const Clock::time_point target = mVirtualNow + by;
        for (;;) {
            ThreadTimer* next = nullptr;
            for (auto& entry : mTimers) {
                ThreadTimer& timer = *entry.second;
                if (timer.armed && timer.due <= target &&
                    (next == nullptr || timer.due < next->due)) {
                    next = &timer;
                }
            }
            if (next == nullptr) break;
            mVirtualNow = std::max(mVirtualNow, next->due);
            ++next->expiries;
            next->overrun = 0;
            if (next->period > Clock::duration::zero()) {
                next->due += next->period;
            } else {
                next->armed = false;
            }
            const Notify notify = next->notify;
            const sigval value = next->value;
            ++mRunning;
            lock.unlock();
            if (notify != nullptr) notify(value);
            lock.lock();
            if (--mRunning == 0) mIdle.notify_all();
        }
        mVirtualNow = target;
    }

  private:
    TimerService() {
        // A child of fork has none of its parent's timers and none of its threads. The mutex is
        // held across fork so that the child's copy is in a known (unlocked) state.
        pthread_atfork([] { instance().mMutex.lock(); }, [] { instance().mMutex.unlock(); },
                       [] { instance().resetInChild(); });
    }

    void resetInChild() {
        mTimers.clear();
        mRunning = 0;
        mSchedulerStarted = false;
        mMutex.unlock();
    }

    // Caller holds mMutex.
    ThreadTimer* find(timer_t id) {
        auto it = mTimers.find(reinterpret_cast<ThreadTimer*>(id));
        return it != mTimers.end() ? it->second.get() : nullptr;
    }

    // Caller holds mMutex.
    itimerspec current(const ThreadTimer& timer) const {
        itimerspec spec{};
        if (!timer.armed) return spec;
        // An armed timer never reports zero time left: zero would read as disarmed.
        spec.it_value = toTimespec(
                std::max(timer.due - now(), Clock::duration(std::chrono::nanoseconds(1))));
        spec.it_interval = toTimespec(timer.period);
        return spec;
    }

    // Caller holds mMutex.
    Clock::time_point now() const { return mVirtual ? mVirtualNow : Clock::now(); }

    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            if (mVirtual) {
                mWake.wait(lock);
                continue;
            }
            const Clock::time_point now = Clock::now();
            Clock::time_point next = Clock::time_point::max();
            std::vector<std::pair<Notify, sigval>> due;
            for (auto& entry : mTimers) {
                ThreadTimer& timer = *entry.second;
                if (!timer.armed) continue;
                if (timer.due <= now) {
                    due.emplace_back(timer.notify, timer.value);
                    ++timer.expiries;
                    if (timer.period > Clock::duration::zero()) {
                        // A late timer delivers once and counts what it skipped.
                        const auto missed = (now - timer.due) / timer.period;
                        timer.overrun = static_cast<int>(std::min<int64_t>(missed, INT_MAX));
                        timer.due += (missed + 1) * timer.period;
                    } else {
                        timer.overrun = 0;
                        timer.armed = false;
                    }
                }
                if (timer.armed) next = std::min(next, timer.due);
            }
            if (!due.empty()) {
                mRunning += static_cast<int>(due.size());
                lock.unlock();
                for (const auto& [notify, value] : due) start(notify, value);
                lock.lock();
                continue;
            }
            if (next == Clock::time_point::max()) {
                mWake.wait(lock);
            } else {
                mWake.wait_until(lock, next);
            }
        }
    }

    // Runs one notification on a thread of its own, as SIGEV_THREAD does.
    void start(Notify notify, sigval value) {
        try {
            std::thread([this, notify, value] {
                if (notify != nullptr) notify(value);
                finished();
            }).detach();
        } catch (const std::system_error&) {
            finished();  // the expiry is lost, as when the C library cannot start its thread
        }
    }

    void finished() {
        std::lock_guard<std::mutex> lock(mMutex);
        --mRunning;
        if (mRunning == 0) mIdle.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mWake;  // the set of armed expiries changed
    std::condition_variable mIdle;  // the last running callback returned
    // All fields below are guarded by mMutex.
    std::unordered_map<ThreadTimer*, std::unique_ptr<ThreadTimer>> mTimers;
    int mRunning = 0;
    bool mSchedulerStarted = false;
    bool mVirtual = false;
    Clock::time_point mVirtualNow;
};

// The timer calls, each answered by this file's timers or, for any other timer, by the C
// library's.

int createTimer(clockid_t clock, sigevent* event, timer_t* id) {
    if (event == nullptr || event->sigev_notify != SIGEV_THREAD || !ownClock(clock)) {
        static const auto libc =
                libcFunction<int (*)(clockid_t, sigevent*, timer_t*)>("timer_create");
        return libc != nullptr ? libc(clock, event, id) : fail(ENOSYS);
    }
    if (id == nullptr) return fail(EINVAL);
    try {
        return TimerService::instance().create(clock, *event, id);
    } catch (const std::bad_alloc&) {
        return fail(EAGAIN);
    }
}

int setTimer(timer_t id, int flags, const itimerspec* spec, itimerspec* old) {
    if (!TimerService::instance().owns(id)) {
        static const auto libc =
                libcFunction<int (*)(timer_t, int, const itimerspec*, itimerspec*)>(
                        "timer_settime");
        return libc != nullptr ? libc(id, flags, spec, old) : fail(ENOSYS);
    }
    if (spec == nullptr) return fail(EFAULT);
    if (!validTime(spec->it_value) || !validTime(spec->it_interval)) return fail(EINVAL);
    return TimerService::instance().settime(id, flags, *spec, old);
}

int getTimer(timer_t id, itimerspec* out) {
    if (!TimerService::instance().owns(id)) {
        static const auto libc = libcFunction<int (*)(timer_t, itimerspec*)>("timer_gettime");
        return libc != nullptr ? libc(id, out) : fail(ENOSYS);
    }
    if (out == nullptr) return fail(EFAULT);
    return TimerService::instance().gettime(id, out);
}

int overrunOf(timer_t id) {
    if (!TimerService::instance().owns(id)) {
        static const auto libc = libcFunction<int (*)(timer_t)>("timer_getoverrun");
        return libc != nullptr ? libc(id) : fail(ENOSYS);
    }
    return TimerService::instance().getoverrun(id);
}

int deleteTimer(timer_t id) {
    if (!TimerService::instance().owns(id)) {
        static const auto libc = libcFunction<int (*)(timer_t)>("timer_delete");
        return libc != nullptr ? libc(id) : fail(ENOSYS);
    }
    return TimerService::instance().remove(id);
}

// What pwr::test::TimerSyscalls reads back: the creations, arming calls and deletions made, the
// latest kMaxRecorded of each, so that a long test (a stress run arms timers millions of times)
// does not grow without bound.
constexpr size_t kMaxRecorded = 1 << 16;

struct CallRecord {
    std::mutex mutex;
    // All fields below are guarded by mutex.
    std::deque<timer_t> created;
    std::deque<timer_t> deleted;
    std::deque<pwr::test::SettimeCall> settimes;

    template <typename T>
    static void add(std::deque<T>& list, const T& entry) {
        if (list.size() == kMaxRecorded) list.pop_front();
        list.push_back(entry);
    }
};

CallRecord& callRecord() {
    static auto* record = new CallRecord();  // never destroyed: late callbacks may still call
    return *record;
}

}  // namespace

// The C entry points: the call, then its record.

extern "C" __attribute__((visibility("default"))) int timer_create(clockid_t clock, sigevent* event,
                                                                   timer_t* id) noexcept {
    const int result = createTimer(clock, event, id);
    if (result == 0) {
        std::lock_guard<std::mutex> lock(callRecord().mutex);
        CallRecord::add(callRecord().created, *id);
    }
    return result;
}

extern "C" __attribute__((visibility("default"))) int timer_settime(timer_t id, int flags,
                                                                    const itimerspec* spec,
                                                                    itimerspec* old) noexcept {
    const int saved = errno;
    const int result = setTimer(id, flags, spec, old);
    const int error = result == 0 ? saved : errno;
    {
        std::lock_guard<std::mutex> lock(callRecord().mutex);
        CallRecord::add(
                callRecord().settimes,
                pwr::test::SettimeCall{id, flags, spec != nullptr ? *spec : itimerspec{}, result});
    }
    errno = error;
    return result;
}

extern "C" __attribute__((visibility("default"))) int timer_gettime(timer_t id,
                                                                    itimerspec* out) noexcept {
    return getTimer(id, out);
}

extern "C" __attribute__((visibility("default"))) int timer_getoverrun(timer_t id) noexcept {
    return overrunOf(id);
}

extern "C" __attribute__((visibility("default"))) int timer_delete(timer_t id) noexcept {
    {
        std::lock_guard<std::mutex> lock(callRecord().mutex);
        CallRecord::add(callRecord().deleted, id);
    }
    return deleteTimer(id);
}

namespace pwr::test {

uint64_t timerExpiries(timer_t timer) {
    return TimerService::instance().expiries(timer);
}

int liveTimers() {
    return TimerService::instance().liveCount();
}

int armedTimers() {
    return TimerService::instance().armedCount();
}

bool waitForTimerCallbacks(std::chrono::milliseconds timeout) {
    return TimerService::instance().waitIdle(timeout);
}

VirtualTime::VirtualTime() {
    TimerService::instance().setVirtual(true);
}

VirtualTime::~VirtualTime() {
    TimerService::instance().setVirtual(false);
}

void VirtualTime::advance(std::chrono::milliseconds by) {
    TimerService::instance().advance(by);
}

void TimerSyscalls::reset() {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    callRecord().created.clear();
    callRecord().deleted.clear();
    callRecord().settimes.clear();
}

std::vector<timer_t> TimerSyscalls::created() {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    return {callRecord().created.begin(), callRecord().created.end()};
}

std::vector<timer_t> TimerSyscalls::deleted() {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    return {callRecord().deleted.begin(), callRecord().deleted.end()};
}

std::vector<SettimeCall> TimerSyscalls::settimes() {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    return {callRecord().settimes.begin(), callRecord().settimes.end()};
}

std::vector<SettimeCall> TimerSyscalls::settimesOf(timer_t id) {
    std::vector<SettimeCall> out;
    for (const SettimeCall& call : settimes()) {
        if (call.id == id) out.push_back(call);
    }
    return out;
}

}  // namespace pwr::test
