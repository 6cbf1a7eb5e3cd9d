// Display, fps and USB probes of PowerHelper: DRM connector and frame-rate nodes, the USB gadget
// state and the display-configuration service.

#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include "platform/DevicePath.h"
#include "platform/DisplayConfigService.h"
#include "platform/PlatformLogSites.h"
#include "platform/PowerHelper.h"
#include "platform/Properties.h"

namespace site = pwr::site;

namespace {

// The built-in panel in the display-configuration service's numbering.
constexpr int32_t kPrimaryDisplay = 1;
constexpr float kDefaultPanelFps = 60.0f;

}  // namespace

const std::vector<std::string> fps_nodes = {
        "/sys/class/drm/mxp-crtc-0/measured_fps",
        "/sys/class/drm/card0-mxp-crtc-0/measured_fps",
};

const std::vector<std::string> fps_periodicity_nodes = {
        "/sys/class/drm/mxp-crtc-0/fps_periodicity_ms",
        "/sys/class/drm/card0-mxp-crtc-0/fps_periodicity_ms",
};

const std::map<DisplayTypeConfigured, std::string> displayNodeMap = {
        {DISPLAY_DP, "/sys/class/drm/card0-DP-1/enabled"},
        {DISPLAY_VIRTUAL, "/sys/class/drm/card0-Virtual-1/enabled"},
        {DISPLAY_DSI2, "/sys/class/drm/card0-DSI-2/enabled"},
};

const char kUsbStateNode[] = "/sys/devices/virtual/android_usb/android0/state";

pwr::Mutex fileMutex;

std::string selectFilePath(const std::vector<std::string>& paths, std::string fallback) {
    for (const std::string& path : paths) {
        if (access(pwr::devicePath(path).c_str(), F_OK) == 0) return path;
    }
    return fallback;
}

int PowerHelper::isDisplayConnected() {
    connectedDisplay = 0;
    // One stream for the whole call, opened only while it is closed: once a node has been
    // opened, the later entries read that same node again, so the first node that opens decides
    // the answer. Kept on purpose.
    std::ifstream stream;
    for (const auto& [type, node] : displayNodeMap) {
        if (!stream.is_open()) {
            stream.open(pwr::devicePath(node));
            if (!stream.is_open()) {
                PWR_LOG_AT(site::kDisplayOpenFailed, node.c_str());
                continue;
            }
        }
        std::string line;
        std::getline(stream, line);
        if (line.empty()) {
            PWR_LOG_AT(site::kDisplayEmpty);
            continue;
        }
        stream.seekg(0);
        if (line == "enabled") {
            connectedDisplay |= type;
            break;
        }
    }
    stream.close();
    return connectedDisplay;
}

int PowerHelper::getExternalDeviceStatus() {
    // A connected display masks the USB state.
    if (isDisplayConnected() != 0) return 0;
    return getUSBstate();
}

int PowerHelper::getUSBstate() {
    pwr::MutexLock lock(fileMutex);
    if (!usbStream.is_open()) {
        usbStream.open(pwr::devicePath(kUsbStateNode));
        if (!usbStream.is_open()) {
            PWR_LOG_AT(site::kUsbOpenFailed, kUsbStateNode);
            return 0;
        }
    }
    std::string line;
    if (!std::getline(usbStream, line)) {
        PWR_LOG_AT(site::kUsbReadFailed, kUsbStateNode);
    }
    if (line.empty()) PWR_LOG_AT(site::kUsbEmpty);

    int attached = 0;
    if (line == "CONFIGURED" || line == "CONNECTED") {
        // "vendor.poweropt.debug" = 1 hides an attached host, for testing on a cabled device.
        char value[PROP_VALUE_MAX] = {};
        property_get("vendor.poweropt.debug", value, "0");
        attached = atoi(value) != 1 ? 1 : 0;
    }
    // Closed after every call so that the next one reads the gadget state afresh.
    usbStream.close();
    return attached;
}

float PowerHelper::getMaxPanelFps() {
    float result = kDefaultPanelFps;
    std::shared_ptr<pwr::DisplayConfigService> service;
    switch (pwr::connectDisplayConfig(&service)) {
        case pwr::DisplayConfigLookup::kNoService:
            PWR_LOG_AT(site::kNoDisplayHal);
            return result;
        case pwr::DisplayConfigLookup::kNoInterface:
            return result;
        case pwr::DisplayConfigLookup::kConnected:
            break;
    }
    if (service == nullptr) return result;

    int32_t config = -1;
    service->getActiveConfig(kPrimaryDisplay, &config);
    if (config >= 0) {
        int32_t vsyncPeriodNs = 0;
        service->getVsyncPeriod(kPrimaryDisplay, config, &vsyncPeriodNs);
        // Integer division first: 16666666 ns gives 60.0, not 60.000002.
        if (vsyncPeriodNs != 0) result = static_cast<float>(1000000000 / vsyncPeriodNs);
    }
    return result;
}

bool PowerHelper::getNodeData() {
    // Opened once by the constructor; a node missing then stays missing.
    if (!fpsStream.is_open()) {
        PWR_LOG_AT(site::kFpsOpenFailed, fpsNodePath.c_str());
        return false;
    }
    std::string line;
    std::getline(fpsStream, line);
    if (line.empty()) return false;

    // The node's line holds colon-separated fields, the fps value first and the frame count last.
    const size_t first = line.find(':');
    if (first == std::string::npos) {
        // No field at all: a failed sample. The values of the last good sample are kept, and the
        // stream is rewound so that the next call reads a fresh sample.
        fpsStream.seekg(0);
        return false;
    }
    const size_t last = line.rfind(':');
    lastFps = strtof(line.c_str() + first + 1, nullptr);
    lastFrames = static_cast<uint32_t>(strtoul(line.c_str() + last + 1, nullptr, 10));
    fpsStream.seekg(0);
    return true;
}

float PowerHelper::getFps() {
    return getNodeData() ? lastFps : 0;
}

int PowerHelper::getFrames() {
    return getNodeData() ? static_cast<int>(lastFrames) : 0;
}
