#pragma once

#include <poll.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>

#include "platform/Mutex.h"

// Touch events passed to a registration's callback.
inline constexpr int kTouchDown = 1;
inline constexpr int kTouchUp = 2;

// One client of the touch event service. Allocated with malloc by touchEventRegister; the
// service never frees it, the client frees it (with free) once it is deregistered.
struct Touchevent_s {
    void (*callback)(void* context, int event);
    int id;
    void* context;
    // Written by touchEventNotify and read by the listener, both under the service's lock.
    int enabled;
};

// Finds the touch-screen input device under /dev/input and tells registered clients, on its own
// listener thread, when a finger touches (kTouchDown) or leaves (kTouchUp) the screen. The
// thread stays parked until a client is enabled.
class TouchEvent {
  public:
    // Searches /dev/input for the touch device and, when one is found, starts the listener.
    // Throws std::system_error ("thread constructor failed") if the thread cannot be started.
    TouchEvent();
    // Listens on an input device the caller has already opened. An invalid descriptor gives a
    // service without a listener, such as touchInstance.
    explicit TouchEvent(android::base::unique_fd device);
    // Stops and joins the listener. A listener blocked in its poll leaves only after one more
    // input event arrives. Registrations are not freed.
    virtual ~TouchEvent();
    TouchEvent(const TouchEvent&) = delete;
    TouchEvent& operator=(const TouchEvent&) = delete;

    // 0 when a touch device was found under /dev/input and kept open, -1 otherwise.
    //
    // Once the listener runs, its device and poll record stay as they are until the destructor
    // has joined it: the thread may be blocked in a poll without timeout on them, and nothing can
    // wake it to switch. So a search (or check) on a running service still answers whether a
    // touch device is there, but closes what it found and keeps listening to the held device.
    // Without a listener (no device was found at construction) a device found later is kept,
    // though no listener is started for it.
    int searchTouchDevice();
    // 0 when the device path `path` is an evdev device whose name contains "fts" (its
    // descriptor is then kept, unless the listener runs: see searchTouchDevice), -1 otherwise.
    int checkTouchDevice(char* path);
    // The listener thread's body.
    void touchEventMain();

    // A new, disabled registration; null for a null context, an id already registered or an
    // allocation failure.
    Touchevent_s* touchEventRegister(void (*callback)(void*, int), void* context, int id);
    // Removes every registration with entry's id, keeping the order of the others; 0 for null,
    // else 1.
    int touchEventDeregister(Touchevent_s* entry);
    // Whether a registration with entry's id exists; false for null. Takes no lock, so a
    // callback may call it; it must not run alongside a register or deregister.
    bool isTouchRegistered(Touchevent_s* entry) NO_THREAD_SAFETY_ANALYSIS;
    // Wakes a parked listener.
    void touchNotify();
    // Enables or disables one registration, waking the listener when it is parked.
    void touchEventNotify(Touchevent_s* entry, bool enable);

    // Declared for clients of the library, which itself never uses it. It has no listener.
    static TouchEvent touchInstance;

  private:
    friend class TouchEventTestPeer;

    // Starts the listener on mDevice; called once a device is held.
    void startListener();
    // Parks until touchNotify() has been called once.
    void parkUntilWoken();
    // Runs every enabled registration's callback with `event`, in registration order.
    void dispatch(int event);

    std::atomic<bool> mRunning{false};
    std::atomic<bool> mListening{false};
    uint8_t mIdle = 1;                         // no finger down; listener thread only
    uint8_t mWake GUARDED_BY(mParkMutex) = 0;  // set once, never cleared
    std::vector<Touchevent_s*> mRegistrations GUARDED_BY(mRegistrationMutex);
    std::thread mThread;
    std::condition_variable_any mParkCondition;
    pwr::Mutex mParkMutex;
    // Fixed while the listener runs: written only while mRunning is false.
    android::base::unique_fd mDevice;
    std::unique_ptr<pollfd> mPollRecord;  // events = POLLIN on mDevice
    pwr::Mutex mRegistrationMutex;
    // OR of the enabled flags, taken by the last touchEventNotify before its own change.
    int mEnabledSummary GUARDED_BY(mRegistrationMutex) = 0;
};
