#pragma once

#include "platform/Mutex.h"

// The PSM mode in force and the gaming state, which event dispatch reads and writes on the host's
// thread and the GPU monitor's sample reset clears. Each read and each write is its own critical
// section: dispatch reads, drops the lock, acts, and writes again.
class PsmModeState {
  public:
    int psmMode() EXCLUDES(mStateMutex) {
        pwr::MutexLock lock(mStateMutex);
        return mPsmMode;
    }
    int gameState() EXCLUDES(mStateMutex) {
        pwr::MutexLock lock(mStateMutex);
        return mGameState;
    }
    void setPsmMode(int mode) EXCLUDES(mStateMutex) {
        pwr::MutexLock lock(mStateMutex);
        mPsmMode = mode;
    }
    void setGameState(int state) EXCLUDES(mStateMutex) {
        pwr::MutexLock lock(mStateMutex);
        mGameState = state;
    }
    void setGameStateLocked(int state) REQUIRES(mStateMutex) { mGameState = state; }

    pwr::Mutex mStateMutex;

  private:
    int mPsmMode GUARDED_BY(mStateMutex) = 0;
    int mGameState GUARDED_BY(mStateMutex) = 0;
};
