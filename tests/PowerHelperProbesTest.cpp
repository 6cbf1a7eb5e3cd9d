// The display, USB and fps probes of PowerHelper against fake DRM, USB and fps nodes, and the
// panel-rate probe against a stood-in display-configuration service.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/DisplayConfigService.h"
#include "platform/PowerHelper.h"
#include "platform/Properties.h"
#include "tests/support/FeatureTest.h"

namespace {

using pwr::test::line;
using pwr::test::lines;
namespace site = pwr::site;

constexpr char kDp[] = "/sys/class/drm/card0-DP-1/enabled";
constexpr char kVirtual[] = "/sys/class/drm/card0-Virtual-1/enabled";
constexpr char kDsi2[] = "/sys/class/drm/card0-DSI-2/enabled";
constexpr char kUsb[] = "/sys/devices/virtual/android_usb/android0/state";
constexpr char kFps[] = "/sys/class/drm/mxp-crtc-0/measured_fps";
constexpr char kCard0Fps[] = "/sys/class/drm/card0-mxp-crtc-0/measured_fps";
constexpr char kPeriodicity[] = "/sys/class/drm/mxp-crtc-0/fps_periodicity_ms";
constexpr char kCard0Periodicity[] = "/sys/class/drm/card0-mxp-crtc-0/fps_periodicity_ms";

const std::string kUsbOpenFailed =
        line(site::kUsbOpenFailed, std::string("Failed to open USB file ") + kUsb);
const std::string kUsbReadFailed =
        line(site::kUsbReadFailed, std::string("Failed to read from USB file ") + kUsb);
const std::string kUsbEmpty = line(site::kUsbEmpty, "Unexpected Null in str");
const std::string kDisplayEmpty = line(site::kDisplayEmpty, "Unexpected Null in str");
std::string displayOpenFailed(const char* node) {
    return line(site::kDisplayOpenFailed, std::string("Failed to open Display file ") + node);
}

// Each test builds its device tree before the helper, whose constructor opens the fps and USB
// streams.
class PowerHelperProbes : public pwr::test::FeatureTest {
  protected:
    bool usbStreamOpen(PowerHelper& helper) {
        pwr::MutexLock lock(fileMutex);
        return helper.usbStream.is_open();
    }
    // Rewrites a node in place, as the kernel does: a stream kept open on it sees the new text.
    void rewriteInPlace(const std::string& devicePath, const std::string& content) {
        std::ofstream out(tree.hostPath(devicePath), std::ios::trunc);
        out << content;
        ASSERT_TRUE(out.good()) << devicePath;
    }
};

// The DisplayPort, virtual and DSI-2 nodes (nullptr: missing) and what isDisplayConnected makes
// of them. One stream serves every entry: the first node it opens is read for each of them.
TEST_F(PowerHelperProbes, DisplayConnected_TheFirstNodeOpenedAnswersForEveryEntry) {
    const struct {
        const char* name;
        const char *dp, *virt, *dsi2;
        int connected;
        std::vector<std::string> lines;
    } cases[] = {
            {"FirstEnabledWins", "enabled\n", "disabled\n", "enabled\n", DISPLAY_DP, lines()},
            {"FirstOpenedIsReadForEveryEntry", "disabled\n", "enabled\n", "enabled\n", 0, lines()},
            {"MissingFirstFallsToNext", nullptr, "enabled\n", "enabled\n", DISPLAY_VIRTUAL,
             lines(displayOpenFailed(kDp))},
            {"SecondDisabledHidesThird", nullptr, "disabled\n", "enabled\n", 0,
             lines(displayOpenFailed(kDp))},
            {"OnlyTheLast", nullptr, nullptr, "enabled\n", DISPLAY_DSI2,
             lines(displayOpenFailed(kDp), displayOpenFailed(kVirtual))},
            {"WithoutLineFeed", "enabled", nullptr, nullptr, DISPLAY_DP, lines()},
            {"TrailingBlank", "enabled \n", nullptr, nullptr, 0, lines()},
            {"EmptyFirstIsReadForEveryEntry", "", "enabled\n", nullptr, 0,
             lines(kDisplayEmpty, kDisplayEmpty, kDisplayEmpty)},
            {"None", nullptr, nullptr, nullptr, 0,
             lines(displayOpenFailed(kDp), displayOpenFailed(kVirtual), displayOpenFailed(kDsi2))},
    };
    for (const auto& c : cases) {
        for (const auto& [node, text] :
             {std::pair{kDp, c.dp}, {kVirtual, c.virt}, {kDsi2, c.dsi2}}) {
            tree.set(node, text);
        }
        log.clear();
        PowerHelper helper;
        helper.connectedDisplay = 7;
        EXPECT_EQ(helper.isDisplayConnected(), c.connected) << c.name;
        EXPECT_EQ(helper.connectedDisplay, c.connected) << c.name;
        EXPECT_EQ(log.messages(), c.lines) << c.name;
    }
}

TEST_F(PowerHelperProbes, DisplayConnected_EachCallReadsAfresh) {
    tree.write(kDp, "disabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    tree.write(kDp, "enabled\n");
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_DP);
}

// The USB state node and the debug property, and whether a device counts as attached; the
// stream is closed after each read.
TEST_F(PowerHelperProbes, UsbState_AttachedAndTheStreamClosed) {
    const struct {
        const char* state;          // nullptr: the node is missing
        const char* debugProperty;  // nullptr: unset (the rows that set it come last)
        int attached;
        std::vector<std::string> lines;
    } cases[] = {
            {"CONFIGURED\n", nullptr, 1, lines()},
            {"CONNECTED\n", nullptr, 1, lines()},
            {"DISCONNECTED\n", nullptr, 0, lines()},
            {"CONFIGURED \n", nullptr, 0, lines()},
            {nullptr, nullptr, 0, lines(kUsbOpenFailed)},
            {"", nullptr, 0, lines(kUsbReadFailed, kUsbEmpty)},
            {"\nCONFIGURED\n", nullptr, 0, lines(kUsbEmpty)},
            {"CONFIGURED\n", "0", 1, lines()},
            {"CONFIGURED\n", "1", 0, lines()},
            {"CONFIGURED\n", "2", 1, lines()},
            {"CONFIGURED\n", "1x", 0, lines()},
    };
    for (const auto& c : cases) {
        const std::string row = ::testing::PrintToString(c.state ? c.state : "<none>") + " debug " +
                                (c.debugProperty ? c.debugProperty : "<unset>");
        tree.set(kUsb, c.state);
        if (c.debugProperty != nullptr)
            pwr::test::setProperty("vendor.poweropt.debug", c.debugProperty);
        log.clear();
        PowerHelper helper;
        EXPECT_EQ(usbStreamOpen(helper), c.state != nullptr) << row;
        EXPECT_EQ(helper.getUSBstate(), c.attached) << row;
        EXPECT_FALSE(usbStreamOpen(helper)) << row;
        EXPECT_EQ(log.messages(), c.lines) << row;
    }
}

TEST_F(PowerHelperProbes, UsbState_EveryCallReopensTheNode) {
    PowerHelper helper;
    EXPECT_EQ(helper.getUSBstate(), 0);
    for (const auto& [state, attached] :
         {std::pair{"CONFIGURED\n", 1}, {"DISCONNECTED\n", 0}, {"CONNECTED\n", 1}}) {
        tree.write(kUsb, state);
        EXPECT_EQ(helper.getUSBstate(), attached) << state;
    }
    EXPECT_EQ(log.messages(), std::vector<std::string>{kUsbOpenFailed});
}

TEST_F(PowerHelperProbes, ExternalDeviceStatus_AConnectedDisplayMasksUsb) {
    tree.write(kDp, "enabled\n");
    tree.write(kUsb, "CONFIGURED\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getExternalDeviceStatus(), 0);
    EXPECT_TRUE(usbStreamOpen(helper)) << "the USB node was not read";
    tree.write(kDp, "disabled\n");
    EXPECT_EQ(helper.getExternalDeviceStatus(), 1);
    tree.write(kUsb, "DISCONNECTED\n");
    EXPECT_EQ(helper.getExternalDeviceStatus(), 0);
}

TEST_F(PowerHelperProbes, FpsNodes_TheFirstTableEntryThatExistsIsKeptOpen) {
    {
        PowerHelper helper;
        EXPECT_EQ(helper.fpsNodePath, kFps);
        EXPECT_EQ(helper.fpsPeriodicityPath, kPeriodicity);
        EXPECT_EQ(helper.getFps(), 0.0f);
        tree.write(kFps, "fps: 60.0 duration:500000 frame_count:10\n");
        EXPECT_EQ(helper.getFrames(), 0) << "not reopened once the node exists";
        const std::string failed =
                line(site::kFpsOpenFailed, std::string("Failed to open fps file ") + kFps);
        EXPECT_EQ(log.messages(), (std::vector<std::string>{failed, failed}));
    }
    tree.remove(kFps);
    tree.write(kCard0Fps, "fps: 90.5 duration:500000 frame_count:45\n");
    tree.write(kCard0Periodicity, "500\n");
    {
        PowerHelper helper;
        EXPECT_EQ(helper.fpsNodePath, kCard0Fps);
        EXPECT_EQ(helper.fpsPeriodicityPath, kCard0Periodicity);
        EXPECT_FLOAT_EQ(helper.getFps(), 90.5f);
    }
    tree.write(kFps, "fps: 30.0 duration:500000 frame_count:15\n");
    tree.write(kPeriodicity, "500\n");
    PowerHelper helper;
    EXPECT_EQ(helper.fpsNodePath, kFps);
    EXPECT_EQ(helper.fpsPeriodicityPath, kPeriodicity);
    EXPECT_EQ(helper.getFrames(), 15);
}

// Each sample reads the node afresh: the fps after its first colon and the frames after its
// last; a line without a colon, or no line, is a failed sample that keeps the last good one
// (after no line at all the stream stays at its end).
TEST_F(PowerHelperProbes, FpsNodes_EachSampleParsesTheLineAfresh) {
    tree.write(kFps, "fps: 59.8 duration:500000 frame_count:1234\n");
    PowerHelper helper;
    const struct {
        const char* text;
        bool parsed;
        float fps;
        uint32_t frames;
    } cases[] = {
            {"fps: 59.8 duration:500000 frame_count:1234\n", true, 59.8f, 1234},
            {"fps:120\n", true, 120.0f, 120},
            {"fps:n/a frames:\n", true, 0.0f, 0},
            {"fps: 24.0 duration:500000 frame_count:12\n", true, 24.0f, 12},
            {"60.0 30\n", false, 24.0f, 12},
            {"fps: 48.0 duration:500000 frame_count:24\n", true, 48.0f, 24},
            {"", false, 48.0f, 24},
    };
    for (const auto& c : cases) {
        rewriteInPlace(kFps, c.text);
        EXPECT_EQ(helper.getNodeData(), c.parsed) << c.text;
        EXPECT_FLOAT_EQ(helper.lastFps, c.fps) << c.text;
        EXPECT_EQ(helper.lastFrames, c.frames) << c.text;
        EXPECT_FLOAT_EQ(helper.getFps(), c.parsed ? c.fps : 0.0f) << c.text;
        EXPECT_EQ(helper.getFrames(), c.parsed ? static_cast<int>(c.frames) : 0) << c.text;
    }
    EXPECT_TRUE(log.messages().empty());
}

// A display-configuration service with a chosen active configuration (negative: the call fails
// and leaves the preset value) and vsync period, which records what it is asked.
struct StandInDisplayConfig : pwr::DisplayConfigService,
                              pwr::DisplayConfigProvider,
                              std::enable_shared_from_this<StandInDisplayConfig> {
    pwr::DisplayConfigLookup connect(std::shared_ptr<pwr::DisplayConfigService>* service) override {
        queries.push_back("connect");
        if (outcome == pwr::DisplayConfigLookup::kConnected) *service = shared_from_this();
        return outcome;
    }
    void getActiveConfig(int32_t display, int32_t* config) override {
        queries.push_back("active " + std::to_string(display));
        if (activeConfig >= 0) *config = activeConfig;
    }
    void getVsyncPeriod(int32_t display, int32_t config, int32_t* vsyncPeriodNs) override {
        queries.push_back("vsync " + std::to_string(display) + " " + std::to_string(config));
        *vsyncPeriodNs = vsyncNs;
    }

    pwr::DisplayConfigLookup outcome;
    int32_t activeConfig;
    int32_t vsyncNs;
    std::vector<std::string> queries;
};

TEST_F(PowerHelperProbes, PanelFps_OneSecondOverTheVsyncPeriodOfTheActiveConfiguration) {
    using L = pwr::DisplayConfigLookup;
    const struct {
        L outcome;
        int32_t config;
        int32_t vsyncNs;
        float fps;
        std::vector<std::string> queries;
    } cases[] = {
            {L::kConnected, 2, 16666666, 60.0f, {"connect", "active 1", "vsync 1 2"}},
            {L::kConnected, 0, 11111111, 90.0f, {"connect", "active 1", "vsync 1 0"}},
            {L::kConnected, 1, 16000000, 62.0f, {"connect", "active 1", "vsync 1 1"}},
            {L::kConnected, 1, 1000000000, 1.0f, {"connect", "active 1", "vsync 1 1"}},
            {L::kConnected, -1, 8333333, 60.0f, {"connect", "active 1"}},
            {L::kConnected, 1, 0, 60.0f, {"connect", "active 1", "vsync 1 1"}},
            {L::kNoInterface, 0, 8333333, 60.0f, {"connect"}},
    };
    PowerHelper helper;
    for (const auto& c : cases) {
        auto service = std::make_shared<StandInDisplayConfig>();
        service->outcome = c.outcome;
        service->activeConfig = c.config;
        service->vsyncNs = c.vsyncNs;
        pwr::setDisplayConfigProvider(service);
        EXPECT_EQ(helper.getMaxPanelFps(), c.fps) << c.vsyncNs;
        EXPECT_EQ(service->queries, c.queries) << c.vsyncNs;
    }
    EXPECT_TRUE(log.messages().empty());
    pwr::setDisplayConfigProvider(nullptr);  // the host has no service: 60, logged each call
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(log.messages(),
              std::vector<std::string>(2, line(site::kNoDisplayHal, "Failed to get display HAL")));
}

}  // namespace
