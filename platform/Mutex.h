#pragma once

#include <mutex>

#include <android-base/thread_annotations.h>

// The annotations are checked by clang only; other compilers get them as nothing.
#ifndef __clang__
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

namespace pwr {

// std::mutex with the capability annotations that clang's -Wthread-safety checks; libstdc++'s
// own mutex carries none.
class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }

  private:
    std::mutex mMutex;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mMutex;
};

}  // namespace pwr
