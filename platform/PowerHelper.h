#pragma once

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/LibraryHandle.h"
#include "platform/Mutex.h"

// Entry points of the performance client library "libvyr-perfd-client.so".
using PerfLockAcquireFn = int (*)(int handle, int duration, int* list, int numArgs);
using PerfLockReleaseFn = int (*)(int handle);
using PerfHintFn = int (*)(int hintId, const char* packageName, int duration, int type);

inline constexpr char kPerfClientLibrary[] = "libvyr-perfd-client.so";

// Displays whose connector state the probes read; 0 means none.
enum DisplayTypeConfigured : int {
    DISPLAY_NONE = 0,
    DISPLAY_DP = 1,
    DISPLAY_VIRTUAL = 2,
    DISPLAY_DSI2 = 3,
};

// Node tables of the probes, in the order they are tried.
extern const std::vector<std::string> fps_nodes;
extern const std::vector<std::string> fps_periodicity_nodes;
extern const std::map<DisplayTypeConfigured, std::string> displayNodeMap;
extern const char kUsbStateNode[];

// Serialises every use of a PowerHelper's USB state stream.
extern pwr::Mutex fileMutex;

// The first path of `paths` that exists, else `fallback`.
std::string selectFilePath(const std::vector<std::string>& paths, std::string fallback);

// The performance client binding, shared by the whole process, and the device probes.
class PowerHelper {
  public:
    PowerHelper();
    // Closes the streams, then the library this helper opened; perf_handle and the entry points
    // keep their values, so no perf call may follow the destruction of the last helper.
    virtual ~PowerHelper();
    PowerHelper(const PowerHelper&) = delete;
    PowerHelper& operator=(const PowerHelper&) = delete;

    // Opens the performance library and binds its entry points; a missing one stays null. Called
    // again, it opens the library anew and closes the handle this helper held before.
    void getPerfhandle();

    // Requests a new lock (the handle argument is ignored: always 0); -1 when unbound.
    int perflockAcquire(int handle, int duration, int* list, int numArgs);
    // Releases `handle` unless it is -1 or the entry point is unbound.
    void perflockRelease(int handle);
    // Sends a hint; 0 for a negative duration or when unbound.
    int perfhintEnable(int hintId, char* packageName, int duration, int type);

    // Key of the first display in displayNodeMap whose node reads "enabled", else 0.
    int isDisplayConnected();
    // 0 when a display is connected, else getUSBstate().
    int getExternalDeviceStatus();
    // 1 when a USB host is attached (unless "vendor.poweropt.debug" is 1), else 0.
    int getUSBstate();
    // Refresh rate of display 1's active configuration; 60.0 when it cannot be found.
    float getMaxPanelFps();
    // Reads one sample of the measured-fps node into lastFps and lastFrames.
    bool getNodeData();
    float getFps();
    int getFrames();

    static void* perf_handle;
    static PerfLockAcquireFn perflock_acq;
    static PerfLockReleaseFn perflock_rel;
    static PerfHintFn perflock_hint;

    int debugEnabled = 0;
    float lastFps = 0;
    int connectedDisplay = 0;
    std::string fpsNodePath;
    std::string fpsPeriodicityPath;
    std::ifstream fpsStream;
    std::ifstream usbStream GUARDED_BY(fileMutex);
    uint32_t lastFrames = 0;

  private:
    // The library this helper opened, published as perf_handle. Each helper owns the handle it
    // opened and closes it when it goes: dlopen counts references, so a helper that is destroyed
    // while another still runs leaves the library loaded for that one. Declared last so that it is
    // closed before the streams are destroyed, after the destructor's body has closed them.
    pwr::LibraryHandle mPerfLibrary;
};
