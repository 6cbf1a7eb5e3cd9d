#include "tests/support/TimerSyscalls.h"

#include <dlfcn.h>
#include <signal.h>

#include <cstdlib>
#include <mutex>

namespace pwr::test {
namespace {

struct Record {
    std::mutex mutex;
    // Guarded by mutex.
    std::vector<timer_t> created;
    std::vector<timer_t> deleted;
    std::vector<SettimeCall> settimes;
};

Record& record() {
    static Record r;
    return r;
}

template <typename Fn>
Fn next(const char* name) {
    void* sym = dlsym(RTLD_NEXT, name);
    if (sym == nullptr) abort();  // the C library always has these
    return reinterpret_cast<Fn>(sym);
}

}  // namespace

void TimerSyscalls::reset() {
    std::lock_guard<std::mutex> lock(record().mutex);
    record().created.clear();
    record().deleted.clear();
    record().settimes.clear();
}

std::vector<timer_t> TimerSyscalls::created() {
    std::lock_guard<std::mutex> lock(record().mutex);
    return record().created;
}

std::vector<timer_t> TimerSyscalls::deleted() {
    std::lock_guard<std::mutex> lock(record().mutex);
    return record().deleted;
}

std::vector<SettimeCall> TimerSyscalls::settimes() {
    std::lock_guard<std::mutex> lock(record().mutex);
    return record().settimes;
}

std::vector<SettimeCall> TimerSyscalls::settimesOf(timer_t id) {
    std::vector<SettimeCall> out;
    for (const SettimeCall& call : settimes()) {
        if (call.id == id) out.push_back(call);
    }
    return out;
}

}  // namespace pwr::test

using pwr::test::record;

extern "C" int timer_create(clockid_t clock, sigevent* event, timer_t* id) {
    static const auto real =
            pwr::test::next<int (*)(clockid_t, sigevent*, timer_t*)>("timer_create");
    const int result = real(clock, event, id);
    if (result == 0) {
        std::lock_guard<std::mutex> lock(record().mutex);
        record().created.push_back(*id);
    }
    return result;
}

extern "C" int timer_settime(timer_t id, int flags, const itimerspec* spec, itimerspec* old) {
    static const auto real =
            pwr::test::next<int (*)(timer_t, int, const itimerspec*, itimerspec*)>("timer_settime");
    const int result = real(id, flags, spec, old);
    std::lock_guard<std::mutex> lock(record().mutex);
    record().settimes.push_back({id, flags, *spec, result});
    return result;
}

extern "C" int timer_delete(timer_t id) {
    static const auto real = pwr::test::next<int (*)(timer_t)>("timer_delete");
    {
        std::lock_guard<std::mutex> lock(record().mutex);
        record().deleted.push_back(id);
    }
    return real(id);
}
