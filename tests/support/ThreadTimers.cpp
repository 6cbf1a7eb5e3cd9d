// POSIX timers for test programs (see ThreadTimers.h for why and what is kept).
//
// In real time one scheduler thread per process sleeps until the earliest armed expiry and starts
// a detached thread for each expiry that is due, as the C library's helper thread does for
// SIGEV_THREAD. In virtual time the scheduler waits and advance() delivers the expiries.

#include "tests/support/ThreadTimers.h"
#include "tests/support/TimerSyscalls.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
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

struct ThreadTimer {
    Notify notify;
    sigval value;
    bool armed = false;
    Clock::time_point due;
    Clock::duration period = Clock::duration::zero();
    uint64_t expiries = 0;  // expiries handed to the notify function
};

bool validTime(const timespec& t) {
    return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < 1000000000L;
}

Clock::duration toDuration(const timespec& t) {
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
}

timespec toTimespec(Clock::duration d) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(d);
    return timespec{static_cast<time_t>(seconds.count()),
                    static_cast<long>(std::chrono::nanoseconds(d - seconds).count())};
}

int fail(int error) {
    errno = error;
    return -1;
}

// Hands a call this file does not answer to the C library's function `name`.
template <typename Fn, typename... Args>
int libc(const char* name, Args... args) {
    const auto fn = reinterpret_cast<Fn*>(dlsym(RTLD_NEXT, name));
    return fn != nullptr ? fn(args...) : fail(ENOSYS);
}

class TimerService {
  public:
    // Never destroyed: callbacks may still be finishing while the process exits.
    static TimerService& instance() {
        static TimerService* service = new TimerService();
        return *service;
    }

    int create(const sigevent& event, timer_t* id) {
        auto timer = std::make_unique<ThreadTimer>();
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

    // Hands back in `old` what the timer was set to, then sets it to `spec` (null: left alone).
    int settime(timer_t id, const itimerspec* spec, itimerspec* old) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        if (timer == nullptr) return fail(EINVAL);
        if (old != nullptr) *old = current(*timer);
        if (spec == nullptr) return 0;
        timer->armed = spec->it_value.tv_sec != 0 || spec->it_value.tv_nsec != 0;
        timer->due = now() + scaled(toDuration(spec->it_value));
        timer->period = scaled(toDuration(spec->it_interval));
        mWake.notify_one();
        return 0;
    }

    int remove(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        return mTimers.erase(reinterpret_cast<ThreadTimer*>(id)) == 0 ? fail(EINVAL) : 0;
    }

    uint64_t expiries(timer_t id) {
        std::lock_guard<std::mutex> lock(mMutex);
        ThreadTimer* timer = find(id);
        return timer != nullptr ? timer->expiries : 0;
    }

    int count() {
        std::lock_guard<std::mutex> lock(mMutex);
        return static_cast<int>(mTimers.size());
    }

    bool waitIdle(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mIdle.wait_for(lock, timeout, [this] { return mRunning == 0; });
    }

    void setVirtual(bool on) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (on == mVirtual) return;
        const Clock::time_point real = Clock::now();
        // Armed timers keep the time they had left.
        for (auto& entry : mTimers) {
            if (!on) entry.second->due = real + (entry.second->due - mVirtualNow);
        }
        mVirtualNow = real;
        mVirtual = on;
        mWake.notify_one();
    }

    void setScale(int divisor) {
        std::lock_guard<std::mutex> lock(mMutex);
        mScale = divisor;
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
            const std::pair<Notify, sigval> call = expire(*next, mVirtualNow);
            ++mRunning;
            lock.unlock();
            if (call.first != nullptr) call.first(call.second);
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
                       [] {
                           TimerService& s = instance();
                           s.mTimers.clear();
                           s.mRunning = 0;
                           s.mSchedulerStarted = false;
                           s.mMutex.unlock();
                       });
    }

    // Caller holds mMutex for all of these.
    ThreadTimer* find(timer_t id) {
        auto it = mTimers.find(reinterpret_cast<ThreadTimer*>(id));
        return it != mTimers.end() ? it->second.get() : nullptr;
    }
    Clock::time_point now() const { return mVirtual ? mVirtualNow : Clock::now(); }
    // Durations of 100 ms and more run `mScale` times faster, never below 2 ms.
    Clock::duration scaled(Clock::duration d) const {
        constexpr auto kLong = std::chrono::milliseconds(100);
        if (mScale <= 1 || d < kLong) return d;
        return std::max<Clock::duration>(d / mScale, std::chrono::milliseconds(2));
    }
    itimerspec current(const ThreadTimer& timer) const {
        itimerspec spec{};
        if (!timer.armed) return spec;
        // An armed timer never reports zero time left: zero would read as disarmed.
        spec.it_value = toTimespec(
                std::max(timer.due - now(), Clock::duration(std::chrono::nanoseconds(1))));
        spec.it_interval = toTimespec(timer.period);
        return spec;
    }
    // Counts one expiry at `at` and sets the next (a late timer skips what it missed).
    static std::pair<Notify, sigval> expire(ThreadTimer& timer, Clock::time_point at) {
        ++timer.expiries;
        if (timer.period > Clock::duration::zero()) {
            timer.due += ((at - timer.due) / timer.period + 1) * timer.period;
        } else {
            timer.armed = false;
        }
        return {timer.notify, timer.value};
    }

    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            const Clock::time_point now = Clock::now();
            Clock::time_point next = Clock::time_point::max();  // in virtual time: none
            std::vector<std::pair<Notify, sigval>> due;
            for (auto& entry : mTimers) {
                ThreadTimer& timer = *entry.second;
                if (mVirtual || !timer.armed) continue;
                if (timer.due <= now) due.push_back(expire(timer, now));
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
        if (--mRunning == 0) mIdle.notify_all();
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
    int mScale = 1;
};

// What pwr::test::TimerSyscalls reads back: the latest kMaxRecorded creations, arming calls and
// deletions, so that a long test (a stress run arms timers millions of times) stays bounded.
constexpr size_t kMaxRecorded = 1 << 16;

struct CallRecord {
    std::mutex mutex;
    // All fields below are guarded by mutex.
    std::deque<timer_t> created;
    std::deque<timer_t> deleted;
    std::deque<pwr::test::SettimeCall> settimes;
};

CallRecord& callRecord() {
    static auto* record = new CallRecord();  // never destroyed: late callbacks may still call
    return *record;
}

template <typename T>
void record(std::deque<T> CallRecord::*list, const T& entry) {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    std::deque<T>& calls = callRecord().*list;
    if (calls.size() == kMaxRecorded) calls.pop_front();
    calls.push_back(entry);
}

template <typename T>
std::vector<T> recorded(std::deque<T> CallRecord::*list) {
    std::lock_guard<std::mutex> lock(callRecord().mutex);
    return {(callRecord().*list).begin(), (callRecord().*list).end()};
}

}  // namespace

// The C entry points: SIGEV_THREAD timers on the clocks the plug-in may use are answered here,
// anything else by the C library. Arming takes relative times only (flags 0), as the plug-in's
// timer service arms them.

extern "C" __attribute__((visibility("default"))) int timer_create(clockid_t clock, sigevent* event,
                                                                   timer_t* id) noexcept {
    int result;
    if (event == nullptr || event->sigev_notify != SIGEV_THREAD ||
        (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME)) {
        result = libc<decltype(timer_create)>("timer_create", clock, event, id);
    } else if (id == nullptr) {
        result = fail(EINVAL);
    } else {
        try {
            result = TimerService::instance().create(*event, id);
        } catch (const std::bad_alloc&) {
            result = fail(EAGAIN);
        }
    }
    if (result == 0) record(&CallRecord::created, *id);
    return result;
}

extern "C" __attribute__((visibility("default"))) int timer_settime(timer_t id, int flags,
                                                                    const itimerspec* spec,
                                                                    itimerspec* old) noexcept {
    const int saved = errno;
    int result;
    if (!TimerService::instance().owns(id)) {
        result = libc<decltype(timer_settime)>("timer_settime", id, flags, spec, old);
    } else if (spec == nullptr) {
        result = fail(EFAULT);
    } else if (flags != 0 || !validTime(spec->it_value) || !validTime(spec->it_interval)) {
        result = fail(EINVAL);
    } else {
        result = TimerService::instance().settime(id, spec, old);
    }
    const int error = result == 0 ? saved : errno;
    record(&CallRecord::settimes,
           pwr::test::SettimeCall{id, flags, spec != nullptr ? *spec : itimerspec{}, result});
    errno = error;
    return result;
}

extern "C" __attribute__((visibility("default"))) int timer_gettime(timer_t id,
                                                                    itimerspec* out) noexcept {
    if (!TimerService::instance().owns(id))
        return libc<decltype(timer_gettime)>("timer_gettime", id, out);
    return out == nullptr ? fail(EFAULT) : TimerService::instance().settime(id, nullptr, out);
}

extern "C" __attribute__((visibility("default"))) int timer_delete(timer_t id) noexcept {
    record(&CallRecord::deleted, id);
    if (!TimerService::instance().owns(id)) return libc<decltype(timer_delete)>("timer_delete", id);
    return TimerService::instance().remove(id);
}

namespace pwr::test {

uint64_t timerExpiries(timer_t timer) {
    return TimerService::instance().expiries(timer);
}

int liveTimers() {
    return TimerService::instance().count();
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

ScaledTime::ScaledTime(int divisor) {
    TimerService::instance().setScale(divisor);
}

ScaledTime::~ScaledTime() {
    TimerService::instance().setScale(1);
}

void TimerSyscalls::reset() {
    CallRecord& r = callRecord();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.created.clear();
    r.deleted.clear();
    r.settimes.clear();
}

std::vector<timer_t> TimerSyscalls::created() {
    return recorded(&CallRecord::created);
}

std::vector<timer_t> TimerSyscalls::deleted() {
    return recorded(&CallRecord::deleted);
}

std::vector<SettimeCall> TimerSyscalls::settimes() {
    return recorded(&CallRecord::settimes);
}

std::vector<SettimeCall> TimerSyscalls::settimesOf(timer_t id) {
    std::vector<SettimeCall> out;
    for (const SettimeCall& call : settimes()) {
        if (call.id == id) out.push_back(call);
    }
    return out;
}

}  // namespace pwr::test
