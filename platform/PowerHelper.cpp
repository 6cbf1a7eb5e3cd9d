#include "platform/PowerHelper.h"

#include "platform/DevicePath.h"
#include "platform/PlatformLogSites.h"
#include "platform/Properties.h"

namespace site = pwr::site;

// One binding for the whole process: written only while a PowerHelper is being constructed,
// before any timer or event thread of the feature exists, and only read afterwards.
void* PowerHelper::perf_handle = nullptr;
PerfLockAcquireFn PowerHelper::perflock_acq = nullptr;
PerfLockReleaseFn PowerHelper::perflock_rel = nullptr;
PerfHintFn PowerHelper::perflock_hint = nullptr;

PowerHelper::PowerHelper() {
    fpsNodePath = selectFilePath(fps_nodes, "/sys/class/drm/mxp-crtc-0/measured_fps");
    fpsPeriodicityPath =
            selectFilePath(fps_periodicity_nodes, "/sys/class/drm/mxp-crtc-0/fps_periodicity_ms");
    if (!fpsStream.is_open()) fpsStream.open(pwr::devicePath(fpsNodePath));
    {
        pwr::MutexLock lock(fileMutex);
        if (!usbStream.is_open()) usbStream.open(pwr::devicePath(kUsbStateNode));
    }
    getPerfhandle();
    if (property_get_bool("vendor.debug.trace.power", false)) debugEnabled = 1;
}

PowerHelper::~PowerHelper() {
    if (fpsStream.is_open()) fpsStream.close();
    {
        pwr::MutexLock lock(fileMutex);
        if (usbStream.is_open()) usbStream.close();
    }
    // mPerfLibrary closes the library after this body has closed the streams. perf_handle and the
    // entry points keep their stale values: a PowerHelper built later binds them again.
}

void PowerHelper::getPerfhandle() {
    // RTLD_NOW: immediate binding, the platform's flags value 0 on its 32-bit C library.
    mPerfLibrary = pwr::openLibrary(kPerfClientLibrary);
    perf_handle = mPerfLibrary.get();
    if (perf_handle == nullptr) {
        PWR_LOG_AT(site::kPerfLibMissing, dlerror());
        return;
    }
    perflock_acq = pwr::findEntry<PerfLockAcquireFn>(mPerfLibrary, "perf_lock_acq");
    if (perflock_acq == nullptr) {
        PWR_LOG_AT(site::kPerfAcquireMissing);
    }
    perflock_rel = pwr::findEntry<PerfLockReleaseFn>(mPerfLibrary, "perf_lock_rel");
    if (perflock_rel == nullptr) {
        PWR_LOG_AT(site::kPerfReleaseMissing);
    }
    perflock_hint = pwr::findEntry<PerfHintFn>(mPerfLibrary, "perf_hint");
    if (perflock_hint == nullptr) {
        PWR_LOG_AT(site::kPerfHintMissing);
    }
}

int PowerHelper::perflockAcquire(int /*handle*/, int duration, int* list, int numArgs) {
    if (perflock_acq == nullptr) return -1;
    // Always a new lock: the caller's handle never reaches the library.
    return perflock_acq(0, duration, list, numArgs);
}

void PowerHelper::perflockRelease(int handle) {
    if (handle == -1 || perflock_rel == nullptr) return;
    perflock_rel(handle);
}

int PowerHelper::perfhintEnable(int hintId, char* packageName, int duration, int type) {
    if (duration < 0 || perflock_hint == nullptr) return 0;
    return perflock_hint(hintId, packageName, duration, type);
}
