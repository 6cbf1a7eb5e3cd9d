// The display, USB and fps probes of PowerHelper against fake DRM, USB and fps nodes, and the
// panel-rate probe against a stood-in display-configuration service.

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/fakeperf/FakePerf.h"
#include "platform/DisplayConfigService.h"
#include "platform/PowerHelper.h"
#include "platform/Properties.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/LogCapture.h"

namespace {

using pwr::test::DeviceTree;
using pwr::test::LogCapture;

constexpr char kDpNode[] = "/sys/class/drm/card0-DP-1/enabled";
constexpr char kVirtualNode[] = "/sys/class/drm/card0-Virtual-1/enabled";
constexpr char kDsi2Node[] = "/sys/class/drm/card0-DSI-2/enabled";
constexpr char kUsbNode[] = "/sys/devices/virtual/android_usb/android0/state";
constexpr char kFpsNode[] = "/sys/class/drm/mxp-crtc-0/measured_fps";
constexpr char kCard0FpsNode[] = "/sys/class/drm/card0-mxp-crtc-0/measured_fps";
constexpr char kPeriodicityNode[] = "/sys/class/drm/mxp-crtc-0/fps_periodicity_ms";
constexpr char kCard0PeriodicityNode[] = "/sys/class/drm/card0-mxp-crtc-0/fps_periodicity_ms";

constexpr char kDisplayOpenFailure[] =
        "PowerHelper: isDisplayConnected() 116: Failed to open Display file ";
constexpr char kDisplayNullLine[] = "PowerHelper: isDisplayConnected() 129: Unexpected Null in str";
constexpr char kUsbOpenFailure[] =
        "PowerHelper: getUSBstate() 226: Failed to open USB file "
        "/sys/devices/virtual/android_usb/android0/state";
constexpr char kUsbReadFailure[] =
        "PowerHelper: getUSBstate() 258: Failed to read from USB file "
        "/sys/devices/virtual/android_usb/android0/state";
constexpr char kUsbNullLine[] = "PowerHelper: getUSBstate() 239: Unexpected Null in str";
constexpr char kNoDisplayHal[] = "PowerHelper: getMaxPanelFps() 159: Failed to get display HAL";

// Each test builds its own device tree before the helper, whose constructor opens the fps and
// USB streams.
class PowerHelperProbes : public ::testing::Test {
  protected:
    void SetUp() override { fakeperf::reset(); }

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

    DeviceTree tree;
    LogCapture log;
};

TEST_F(PowerHelperProbes, SelectFilePath_FirstExistingElseFallback) {
    EXPECT_EQ(selectFilePath({}, "/fallback"), "/fallback");
    EXPECT_EQ(selectFilePath({"/a", "/b"}, "/fallback"), "/fallback");
    tree.write("/b", "");
    EXPECT_EQ(selectFilePath({"/a", "/b"}, "/fallback"), "/b");
    tree.write("/a", "");
    EXPECT_EQ(selectFilePath({"/a", "/b"}, "/fallback"), "/a");
}

// ---- isDisplayConnected ----

TEST_F(PowerHelperProbes, DisplayConnected_FirstEnabledNodeWins) {
    tree.write(kDpNode, "enabled\n");
    tree.write(kVirtualNode, "disabled\n");
    tree.write(kDsi2Node, "enabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_DP);
    EXPECT_EQ(helper.connectedDisplay, DISPLAY_DP);
    EXPECT_EQ(log.countContaining("isDisplayConnected()"), 0)
            << ::testing::PrintToString(log.messages());
}

TEST_F(PowerHelperProbes, DisplayConnected_FirstOpenedNodeIsReadForEveryEntry) {
    // The one stream stays on the DisplayPort node: it is read three times, node 2 never.
    tree.write(kDpNode, "disabled\n");
    tree.write(kVirtualNode, "enabled\n");
    tree.write(kDsi2Node, "enabled\n");
    PowerHelper helper;
    helper.connectedDisplay = 7;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    EXPECT_EQ(helper.connectedDisplay, 0);
    EXPECT_EQ(log.countContaining("isDisplayConnected()"), 0);
}

TEST_F(PowerHelperProbes, DisplayConnected_MissingFirstNodeFallsToNext) {
    tree.write(kVirtualNode, "enabled\n");
    tree.write(kDsi2Node, "enabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_VIRTUAL);
    EXPECT_EQ(log.count(std::string(kDisplayOpenFailure) + kDpNode), 1)
            << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.countContaining("isDisplayConnected()"), 1);
}

TEST_F(PowerHelperProbes, DisplayConnected_SecondNodeDisabledHidesThird) {
    tree.write(kVirtualNode, "disabled\n");
    tree.write(kDsi2Node, "enabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    EXPECT_EQ(log.count(std::string(kDisplayOpenFailure) + kDpNode), 1);
}

TEST_F(PowerHelperProbes, DisplayConnected_OnlyExactlyEnabledCounts) {
    PowerHelper helper;
    for (const char* text : {"enabled \n", "enabled\t\n", " enabled\n", "Enabled\n", "enable\n"}) {
        tree.write(kDpNode, text);
        EXPECT_EQ(helper.isDisplayConnected(), 0) << '"' << text << '"';
    }
    // The line feed is not part of the line, and a node without one reads the same.
    tree.write(kDpNode, "enabled");
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_DP);
}

TEST_F(PowerHelperProbes, DisplayConnected_EmptyFirstNodeIsReadForEveryEntry) {
    tree.write(kDpNode, "");
    tree.write(kVirtualNode, "enabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    EXPECT_EQ(log.count(kDisplayNullLine), 3) << ::testing::PrintToString(log.messages());
}

TEST_F(PowerHelperProbes, DisplayConnected_NoNodesLogsEachAndAnswersZero) {
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    EXPECT_EQ(log.count(std::string(kDisplayOpenFailure) + kDpNode), 1);
    EXPECT_EQ(log.count(std::string(kDisplayOpenFailure) + kVirtualNode), 1);
    EXPECT_EQ(log.count(std::string(kDisplayOpenFailure) + kDsi2Node), 1);
}

TEST_F(PowerHelperProbes, DisplayConnected_EachCallReadsAfresh) {
    tree.write(kDpNode, "disabled\n");
    PowerHelper helper;
    EXPECT_EQ(helper.isDisplayConnected(), 0);
    tree.write(kDpNode, "enabled\n");
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_DP);
    tree.remove(kDpNode);
    tree.write(kDsi2Node, "enabled\n");
    EXPECT_EQ(helper.isDisplayConnected(), DISPLAY_DSI2);
}

// ---- getUSBstate ----

struct UsbCase {
    const char* name;
    const char* state;
    const char* debugProperty;  // null: unset
    int expected;
};

void PrintTo(const UsbCase& c, std::ostream* os) {
    *os << '"' << c.state << "\" debug=" << (c.debugProperty ? c.debugProperty : "unset");
}

class PowerHelperUsbState : public PowerHelperProbes,
                            public ::testing::WithParamInterface<UsbCase> {};

TEST_P(PowerHelperUsbState, AnswersAndClosesTheStream) {
    const UsbCase& c = GetParam();
    tree.write(kUsbNode, std::string(c.state) + "\n");
    if (c.debugProperty != nullptr) {
        ASSERT_EQ(property_set("vendor.poweropt.debug", c.debugProperty), 0);
    }
    PowerHelper helper;
    ASSERT_TRUE(usbStreamOpen(helper));
    EXPECT_EQ(helper.getUSBstate(), c.expected);
    EXPECT_FALSE(usbStreamOpen(helper));
    EXPECT_EQ(log.countContaining("getUSBstate()"), 0) << ::testing::PrintToString(log.messages());
}

INSTANTIATE_TEST_SUITE_P(
        States, PowerHelperUsbState,
        ::testing::Values(UsbCase{"Configured", "CONFIGURED", nullptr, 1},
                          UsbCase{"Connected", "CONNECTED", nullptr, 1},
                          UsbCase{"ConfiguredDebug0", "CONFIGURED", "0", 1},
                          UsbCase{"ConfiguredDebug1", "CONFIGURED", "1", 0},
                          UsbCase{"ConnectedDebug1", "CONNECTED", "1", 0},
                          UsbCase{"ConfiguredDebug2", "CONFIGURED", "2", 1},
                          UsbCase{"ConfiguredDebug1x", "CONFIGURED", "1x", 0},
                          UsbCase{"ConfiguredDebugText", "CONFIGURED", "x", 1},
                          UsbCase{"Disconnected", "DISCONNECTED", nullptr, 0},
                          UsbCase{"DisconnectedDebug2", "DISCONNECTED", "2", 0},
                          UsbCase{"ConfiguredTrailingBlank", "CONFIGURED ", nullptr, 0},
                          UsbCase{"LowerCase", "configured", nullptr, 0}),
        [](const ::testing::TestParamInfo<UsbCase>& info) { return std::string(info.param.name); });

TEST_F(PowerHelperProbes, UsbState_EveryCallReopensTheNode) {
    tree.write(kUsbNode, "CONFIGURED\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getUSBstate(), 1);
    tree.write(kUsbNode, "DISCONNECTED\n");
    EXPECT_EQ(helper.getUSBstate(), 0);
    tree.write(kUsbNode, "CONNECTED\n");
    EXPECT_EQ(helper.getUSBstate(), 1);
    EXPECT_EQ(helper.getUSBstate(), 1);
    EXPECT_FALSE(usbStreamOpen(helper));
}

TEST_F(PowerHelperProbes, UsbState_MissingNode) {
    PowerHelper helper;
    EXPECT_FALSE(usbStreamOpen(helper));
    EXPECT_EQ(helper.getUSBstate(), 0);
    EXPECT_EQ(log.count(kUsbOpenFailure), 1) << ::testing::PrintToString(log.messages());
    // The node appearing later is found by the next call.
    tree.write(kUsbNode, "CONFIGURED\n");
    EXPECT_EQ(helper.getUSBstate(), 1);
    EXPECT_EQ(log.count(kUsbOpenFailure), 1);
}

TEST_F(PowerHelperProbes, UsbState_EmptyNodeIsAFailedReadAndANullLine) {
    tree.write(kUsbNode, "");
    PowerHelper helper;
    EXPECT_EQ(helper.getUSBstate(), 0);
    EXPECT_EQ(log.count(kUsbReadFailure), 1) << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(kUsbNullLine), 1);
    EXPECT_FALSE(usbStreamOpen(helper));
}

TEST_F(PowerHelperProbes, UsbState_BlankLineIsANullLineOnly) {
    tree.write(kUsbNode, "\nCONFIGURED\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getUSBstate(), 0);
    EXPECT_EQ(log.count(kUsbReadFailure), 0) << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.count(kUsbNullLine), 1);
}

// ---- getExternalDeviceStatus ----

TEST_F(PowerHelperProbes, ExternalDeviceStatus_DisplayMasksUsb) {
    tree.write(kDpNode, "enabled\n");
    tree.write(kUsbNode, "CONFIGURED\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getExternalDeviceStatus(), 0);
    EXPECT_EQ(helper.connectedDisplay, DISPLAY_DP);
    // The USB stream was not touched: still open from the constructor.
    EXPECT_TRUE(usbStreamOpen(helper));
}

TEST_F(PowerHelperProbes, ExternalDeviceStatus_UsbWhenNoDisplay) {
    tree.write(kDpNode, "disabled\n");
    tree.write(kUsbNode, "CONFIGURED\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getExternalDeviceStatus(), 1);
    tree.write(kUsbNode, "DISCONNECTED\n");
    EXPECT_EQ(helper.getExternalDeviceStatus(), 0);
    ASSERT_EQ(property_set("vendor.poweropt.debug", "1"), 0);
    tree.write(kUsbNode, "CONFIGURED\n");
    EXPECT_EQ(helper.getExternalDeviceStatus(), 0);
}

// ---- fps nodes ----

TEST_F(PowerHelperProbes, FpsNodes_NeitherExists) {
    PowerHelper helper;
    EXPECT_EQ(helper.fpsNodePath, kFpsNode);
    EXPECT_EQ(helper.fpsPeriodicityPath, kPeriodicityNode);
    EXPECT_FALSE(helper.fpsStream.is_open());
    const std::string failure =
            std::string("PowerHelper: getNodeData() 184: Failed to open fps file ") + kFpsNode;
    EXPECT_EQ(helper.getFps(), 0.0f);
    EXPECT_EQ(log.count(failure), 1) << ::testing::PrintToString(log.messages());
    EXPECT_EQ(helper.getFrames(), 0);
    EXPECT_EQ(log.count(failure), 2);
    // Not reopened later, even once the node exists.
    tree.write(kFpsNode, "fps: 60.0 duration:500000 frame_count:10\n");
    EXPECT_FALSE(helper.getNodeData());
    EXPECT_EQ(log.count(failure), 3);
}

TEST_F(PowerHelperProbes, FpsNodes_SecondTableEntryWhenOnlyItExists) {
    tree.write(kCard0FpsNode, "fps: 90.5 duration:500000 frame_count:45\n");
    tree.write(kCard0PeriodicityNode, "500\n");
    PowerHelper helper;
    EXPECT_EQ(helper.fpsNodePath, kCard0FpsNode);
    EXPECT_EQ(helper.fpsPeriodicityPath, kCard0PeriodicityNode);
    EXPECT_FLOAT_EQ(helper.getFps(), 90.5f);
}

TEST_F(PowerHelperProbes, FpsNodes_FirstTableEntryPreferred) {
    tree.write(kFpsNode, "fps: 30.0 duration:500000 frame_count:15\n");
    tree.write(kCard0FpsNode, "fps: 90.5 duration:500000 frame_count:45\n");
    tree.write(kPeriodicityNode, "500\n");
    tree.write(kCard0PeriodicityNode, "500\n");
    PowerHelper helper;
    EXPECT_EQ(helper.fpsNodePath, kFpsNode);
    EXPECT_EQ(helper.fpsPeriodicityPath, kPeriodicityNode);
    EXPECT_EQ(helper.getFrames(), 15);
}

TEST_F(PowerHelperProbes, NodeData_ParsesFpsAfterFirstColonAndFramesAfterLast) {
    tree.write(kFpsNode, "fps: 59.8 duration:500000 frame_count:1234\n");
    PowerHelper helper;
    ASSERT_TRUE(helper.getNodeData());
    EXPECT_FLOAT_EQ(helper.lastFps, 59.8f);
    EXPECT_EQ(helper.lastFrames, 1234u);
    EXPECT_FLOAT_EQ(helper.getFps(), 59.8f);
    EXPECT_EQ(helper.getFrames(), 1234);
    // A single field serves as both.
    rewriteInPlace(kFpsNode, "fps:120\n");
    ASSERT_TRUE(helper.getNodeData());
    EXPECT_FLOAT_EQ(helper.lastFps, 120.0f);
    EXPECT_EQ(helper.lastFrames, 120u);
    // Fields that do not start with a number read as 0.
    rewriteInPlace(kFpsNode, "fps:n/a frames:\n");
    ASSERT_TRUE(helper.getNodeData());
    EXPECT_EQ(helper.lastFps, 0.0f);
    EXPECT_EQ(helper.lastFrames, 0u);
    EXPECT_EQ(log.countContaining("getNodeData()"), 0);
}

TEST_F(PowerHelperProbes, NodeData_EverySampleIsReadFresh) {
    tree.write(kFpsNode, "fps: 60.0 duration:500000 frame_count:30\n");
    PowerHelper helper;
    EXPECT_EQ(helper.getFrames(), 30);
    EXPECT_EQ(helper.getFrames(), 30);
    rewriteInPlace(kFpsNode, "fps: 24.0 duration:500000 frame_count:12\n");
    EXPECT_FLOAT_EQ(helper.getFps(), 24.0f);
    EXPECT_EQ(helper.getFrames(), 12);
}

TEST_F(PowerHelperProbes, NodeData_LineWithoutColonIsAFailedSample) {
    tree.write(kFpsNode, "fps: 60.0 duration:500000 frame_count:30\n");
    PowerHelper helper;
    ASSERT_TRUE(helper.getNodeData());
    rewriteInPlace(kFpsNode, "60.0 30\n");
    EXPECT_FALSE(helper.getNodeData());
    EXPECT_EQ(helper.getFps(), 0.0f);
    EXPECT_EQ(helper.getFrames(), 0);
    // The last good sample is kept, and the stream was rewound for the next one.
    EXPECT_FLOAT_EQ(helper.lastFps, 60.0f);
    EXPECT_EQ(helper.lastFrames, 30u);
    rewriteInPlace(kFpsNode, "fps: 48.0 duration:500000 frame_count:24\n");
    EXPECT_EQ(helper.getFrames(), 24);
}

TEST_F(PowerHelperProbes, NodeData_EmptyNodeIsAFailedSample) {
    tree.write(kFpsNode, "");
    PowerHelper helper;
    ASSERT_TRUE(helper.fpsStream.is_open());
    EXPECT_FALSE(helper.getNodeData());
    EXPECT_EQ(helper.getFps(), 0.0f);
    EXPECT_EQ(log.countContaining("getNodeData()"), 0);
}

// ---- getMaxPanelFps ----

// A display-configuration service with a chosen active configuration and vsync period, which
// records the displays and configurations it is asked about.
class StandInDisplayConfig : public pwr::DisplayConfigService {
  public:
    StandInDisplayConfig(int32_t activeConfig, int32_t vsyncPeriodNs)
        : mActiveConfig(activeConfig), mVsyncPeriodNs(vsyncPeriodNs) {}

    void getActiveConfig(int32_t display, int32_t* config) override {
        activeConfigDisplays.push_back(display);
        // A negative index stands for a failed call, which leaves the preset value.
        if (mActiveConfig >= 0) *config = mActiveConfig;
    }
    void getVsyncPeriod(int32_t display, int32_t config, int32_t* vsyncPeriodNs) override {
        attributeQueries.emplace_back(display, config);
        *vsyncPeriodNs = mVsyncPeriodNs;
    }

    std::vector<int32_t> activeConfigDisplays;
    std::vector<std::pair<int32_t, int32_t>> attributeQueries;  // display, configuration

  private:
    int32_t mActiveConfig;
    int32_t mVsyncPeriodNs;
};

class StandInProvider : public pwr::DisplayConfigProvider {
  public:
    StandInProvider(pwr::DisplayConfigLookup outcome, std::shared_ptr<StandInDisplayConfig> service)
        : mOutcome(outcome), mService(std::move(service)) {}

    pwr::DisplayConfigLookup connect(std::shared_ptr<pwr::DisplayConfigService>* service) override {
        ++lookups;
        if (mOutcome == pwr::DisplayConfigLookup::kConnected) *service = mService;
        return mOutcome;
    }

    int lookups = 0;

  private:
    pwr::DisplayConfigLookup mOutcome;
    std::shared_ptr<StandInDisplayConfig> mService;
};

// Installs a stand-in provider for one test and puts the platform's back afterwards.
class PanelFps : public PowerHelperProbes {
  protected:
    std::shared_ptr<StandInProvider> install(pwr::DisplayConfigLookup outcome,
                                             std::shared_ptr<StandInDisplayConfig> service) {
        auto provider = std::make_shared<StandInProvider>(outcome, std::move(service));
        pwr::setDisplayConfigProvider(provider);
        return provider;
    }
    void TearDown() override { pwr::setDisplayConfigProvider(nullptr); }
};

TEST_F(PanelFps, NoServiceOnHostLogsOncePerCall) {
    PowerHelper helper;
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(log.count(kNoDisplayHal), 1) << ::testing::PrintToString(log.messages());
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(log.count(kNoDisplayHal), 2);
}

TEST_F(PanelFps, VsyncPeriodIsDividedAsIntegers) {
    PowerHelper helper;
    const std::pair<int32_t, float> cases[] = {{16666666, 60.0f}, {8333333, 120.0f},
                                               {11111111, 90.0f}, {33333333, 30.0f},
                                               {16000000, 62.0f}, {1000000000, 1.0f}};
    for (const auto& [period, fps] : cases) {
        auto service = std::make_shared<StandInDisplayConfig>(2, period);
        install(pwr::DisplayConfigLookup::kConnected, service);
        EXPECT_EQ(helper.getMaxPanelFps(), fps) << period;
        // Display 1 is asked for its active configuration, whose attributes are then read.
        EXPECT_EQ(service->activeConfigDisplays, std::vector<int32_t>{1});
        EXPECT_EQ(service->attributeQueries, (std::vector<std::pair<int32_t, int32_t>>{{1, 2}}));
    }
    EXPECT_EQ(log.countContaining("getMaxPanelFps()"), 0);
}

TEST_F(PanelFps, NoActiveConfigurationAnswers60WithoutAttributes) {
    PowerHelper helper;
    auto service = std::make_shared<StandInDisplayConfig>(-1, 8333333);
    install(pwr::DisplayConfigLookup::kConnected, service);
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(service->activeConfigDisplays.size(), 1u);
    EXPECT_TRUE(service->attributeQueries.empty());
}

TEST_F(PanelFps, ConfigurationZeroIsValid) {
    PowerHelper helper;
    auto service = std::make_shared<StandInDisplayConfig>(0, 8333333);
    install(pwr::DisplayConfigLookup::kConnected, service);
    EXPECT_EQ(helper.getMaxPanelFps(), 120.0f);
    EXPECT_EQ(service->attributeQueries, (std::vector<std::pair<int32_t, int32_t>>{{1, 0}}));
}

TEST_F(PanelFps, ZeroVsyncPeriodAnswers60) {
    PowerHelper helper;
    install(pwr::DisplayConfigLookup::kConnected, std::make_shared<StandInDisplayConfig>(1, 0));
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(log.countContaining("getMaxPanelFps()"), 0);
}

TEST_F(PanelFps, BinderWithoutInterfaceAnswers60Silently) {
    PowerHelper helper;
    auto service = std::make_shared<StandInDisplayConfig>(0, 8333333);
    auto provider = install(pwr::DisplayConfigLookup::kNoInterface, service);
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(provider->lookups, 1);
    EXPECT_TRUE(service->activeConfigDisplays.empty());
    EXPECT_EQ(log.countContaining("getMaxPanelFps()"), 0);
}

TEST_F(PanelFps, StandInServiceWithdrawnRestoresHostAnswer) {
    PowerHelper helper;
    install(pwr::DisplayConfigLookup::kConnected,
            std::make_shared<StandInDisplayConfig>(0, 8333333));
    EXPECT_EQ(helper.getMaxPanelFps(), 120.0f);
    pwr::setDisplayConfigProvider(nullptr);
    EXPECT_EQ(helper.getMaxPanelFps(), 60.0f);
    EXPECT_EQ(log.count(kNoDisplayHal), 1);
}

}  // namespace
