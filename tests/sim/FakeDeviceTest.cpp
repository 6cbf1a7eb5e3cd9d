#include "host/sim/FakeDevice.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/GraxInfo.h"
#include "tests/support/DeviceTree.h"

namespace {

using pwr::sim::FakeDevice;
using pwr::sim::Scenario;

constexpr char kGpu[] = "/sys/class/grax/grax-3d0/";

Scenario gpuScenario() {
    Scenario s;
    s.durationMs = 60000;
    s.gpuFrequenciesMhz = {100, 200, 400};
    // From 1 s on 300 MHz, halfway between 200 and 400: half the time at each.
    s.gpu = {{0, 200, 30, {}}, {1000, 300, 75, {}}};
    return s;
}

TEST(FakeDevice, WritesTheGpuNodesAsTheDriverDoesAndAdvancesThemWithSimulatedTime) {
    pwr::test::DeviceTree tree;
    const Scenario scenario = gpuScenario();
    FakeDevice device(scenario);
    std::string error;
    ASSERT_TRUE(device.create(&error)) << error;
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_available_frequencies"),
              "400000000 200000000 100000000\n");
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_clock_stats"), "0 0 0\n");
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpuclk"), "200000000\n");
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpubusy"), "300000 1000000\n");
    EXPECT_TRUE(std::filesystem::is_directory(tree.hostPath("/data/vendor/pwr")));
    // No battery or foreground trace: no such nodes.
    EXPECT_FALSE(
            std::filesystem::exists(tree.hostPath("/sys/class/power_supply/battery/current_now")));

    // The clock statistics advance with simulated time, split as the trace says, so that the
    // average the feature computes from them is the trace's frequency.
    GraxInfo grax;  // reads the tree just made: counters seeded at 0
    ASSERT_EQ(grax.freqs().size(), 3u);

    ASSERT_TRUE(device.update(500, &error)) << error;
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_clock_stats"), "0 500000 0\n");
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpubusy"), "150000 500000\n");
    EXPECT_EQ(grax.GetAvgCapacity(false), 512);  // 200 MHz of 400
    EXPECT_EQ(grax.GetAvgUtil(), 30);

    // The second point takes effect at 1 s; the window before it still ran at 200 MHz.
    ASSERT_TRUE(device.update(1000, &error)) << error;
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_clock_stats"), "0 1000000 0\n");
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpuclk"), "400000000\n");
    EXPECT_EQ(grax.GetAvgUtil(), 75);
    EXPECT_EQ(grax.GetAvgCapacity(false), 512);

    ASSERT_TRUE(device.update(3000, &error)) << error;
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_clock_stats"), "1000000 2000000 0\n");
    EXPECT_EQ(grax.GetAvgCapacity(false), (512 + 1024) / 2);
    EXPECT_EQ(device.state().freqMhz, 400);
    EXPECT_EQ(device.state().busy, 75);

    // Time never goes back: an earlier time changes nothing.
    ASSERT_TRUE(device.update(2000, &error)) << error;
    EXPECT_EQ(tree.read(std::string(kGpu) + "gpu_clock_stats"), "1000000 2000000 0\n");
}

TEST(FakeDevice, Update_WritesBatteryAndForegroundNodes) {
    pwr::test::DeviceTree tree;
    Scenario s;
    s.durationMs = 10000;
    s.battery = {{0, 450.5}, {2000, -100}};
    s.foreground = {{1000, {{1234, "com.example.video"}, {15, ""}}}};
    FakeDevice device(s);
    std::string error;
    ASSERT_TRUE(device.create(&error)) << error;
    const std::string current = "/sys/class/power_supply/battery/current_now";
    const std::string procs = "/dev/cpuset/top-app/cgroup.procs";
    EXPECT_EQ(tree.read(current), "-450500\n");
    EXPECT_EQ(tree.read(procs), "");

    ASSERT_TRUE(device.update(1500, &error)) << error;
    EXPECT_EQ(tree.read(procs), "1234\n15\n");
    EXPECT_EQ(tree.read("/proc/1234/cmdline"), std::string("com.example.video\0", 18));
    EXPECT_EQ(tree.read("/proc/15/cmdline"), "");  // a kernel thread

    ASSERT_TRUE(device.update(2000, &error)) << error;
    EXPECT_EQ(tree.read(current), "100000\n");  // charging: positive
    EXPECT_DOUBLE_EQ(device.state().drainMa, -100);
}

}  // namespace
