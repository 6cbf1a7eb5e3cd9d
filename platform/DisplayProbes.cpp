// Display, fps and USB probes of PowerHelper. Placeholder until the probes land: the node tables
// and the path selection the constructor needs are real; the probes answer "nothing connected".

#include <unistd.h>

#include "platform/DevicePath.h"
#include "platform/PowerHelper.h"

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
    return connectedDisplay;
}

int PowerHelper::getExternalDeviceStatus() {
    if (isDisplayConnected() != 0) return 0;
    return getUSBstate();
}

int PowerHelper::getUSBstate() {
    return 0;
}

float PowerHelper::getMaxPanelFps() {
    return 60.0f;
}

bool PowerHelper::getNodeData() {
    return false;
}

float PowerHelper::getFps() {
    return getNodeData() ? lastFps : 0;
}

int PowerHelper::getFrames() {
    return getNodeData() ? static_cast<int>(lastFrames) : 0;
}
