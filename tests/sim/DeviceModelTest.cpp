// The device model file: a valid one read into the resource table the fake performance library
// applies, and each missing or contradictory item refused with one error naming file and key.

#include "host/sim/DeviceModel.h"

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The fake library's entry points, as the plug-in reaches them.
extern "C" int perf_lock_acq(int handle, int duration, int* list, int numArgs);
extern "C" int perf_lock_rel(int handle);

namespace {

using pwr::sim::DeviceModel;
using ::testing::HasSubstr;

constexpr char kProfile[] = R"(<device name="Android">
  <item name="battery.capacity">4000</item>
  <item name="cpu.active">20</item>
  <array name="cpu.clusters.cores"><value>4</value></array>
  <array name="cpu.core_speeds.cluster0"><value>500000</value><value>1000000</value></array>
  <array name="cpu.core_power.cluster0"><value>10</value><value>30</value></array>
</device>
)";

constexpr char kModel[] = R"({
  "power_profile": "pp.xml", "base_ma": 200,
  "gpu": {"frequencies_mhz": [100, 200],
          "current_ma": {"100": {"busy": 50, "idle": 10}, "200": {"busy": 90, "idle": 20}}},
  "cpu_load": [{"speed_mhz": 1000, "busy_cores": 1}],
  "resources": [{"opcode": "0x42804000", "does": "gpu_max_mhz"},
                {"opcode": "0x40C00000", "does": "cpu_max_level", "cluster": 0},
                {"opcode": "0x40C68000", "does": "task_load_boost"}]
})";

class DeviceModelTest : public ::testing::Test {
  protected:
    // Parses kModel with `from` replaced by `to` in it and `profileFrom` by `profileTo` in the
    // power profile.
    bool parse(const std::string& from, const std::string& to, std::string* error, DeviceModel* out,
               const std::string& profileFrom = "", const std::string& profileTo = "") {
        auto replaced = [](std::string text, const std::string& a, const std::string& b) {
            const size_t at = a.empty() ? std::string::npos : text.find(a);
            EXPECT_TRUE(a.empty() || at != std::string::npos) << a;
            return at == std::string::npos ? text : text.replace(at, a.size(), b);
        };
        EXPECT_TRUE(android::base::WriteStringToFile(replaced(kProfile, profileFrom, profileTo),
                                                     mDir + "/pp.xml"));
        return DeviceModel::parseText(replaced(kModel, from, to), mDir + "/m.json", out, error);
    }

    TemporaryDir mTemporary;
    const std::string mDir = mTemporary.path;
};

TEST_F(DeviceModelTest, ReadsTheModelAndThePowerProfile) {
    DeviceModel m;
    std::string error;
    ASSERT_TRUE(parse("", "", &error, &m)) << error;
    EXPECT_EQ(m.batteryMah, 4000);
    ASSERT_EQ(m.clusters.size(), 1u);
    EXPECT_EQ(m.clusters[0].speedsMhz, (std::vector<uint64_t>{500, 1000}));  // kHz in the file
    const fakeperf::Resource& level = m.resources.at(0x40C00000);
    EXPECT_EQ(level.target, "cpu0");
    EXPECT_EQ(level.levelsMhz, (std::vector<int>{500, 1000}));
    EXPECT_EQ(m.resources.at(0x40C68000).kind, fakeperf::Resource::Kind::TaskLoadBoost);
}

TEST_F(DeviceModelTest, MissingOrContradictoryItemsNameFileAndKey) {
    struct Row {
        std::string from, to, profileFrom, profileTo, expected;
    };
    const Row rows[] = {
            {"\"0x40C68000\"", "\"0x42804000\"", "", "",
             "/m.json: resources[2].opcode: 0x42804000 is mapped twice (first at resources[0])"},
            {"\"200\": {\"busy\": 90, \"idle\": 20}", "\"150\": {\"busy\": 90, \"idle\": 20}", "",
             "", "/m.json: gpu.current_ma.150: is not a frequency of gpu.frequencies_mhz"},
            {", \"200\": {\"busy\": 90, \"idle\": 20}", "", "", "",
             "/m.json: gpu.current_ma: no entry for 200 MHz of gpu.frequencies_mhz"},
            {"\"idle\": 20", "\"idle\": 95", "", "",
             "gpu.current_ma.200.idle: is more than the busy current"},
            {"\"base_ma\": 200,", "", "", "", "/m.json: \"base_ma\" is missing"},
            {"\"cpu_max_level\"", "\"gpu_turbo\"", "", "",
             "resources[1].does: \"gpu_turbo\" is not"},
            {"\"cluster\": 0", "\"cluster\": 1", "", "",
             "resources[1].cluster: 1 is outside 0 to 0"},
            {"", "", "<item name=\"battery.capacity\">4000</item>", "",
             "/pp.xml: \"battery.capacity\" is missing"},
            {"", "", "<value>10</value>", "",
             "/pp.xml:6: \"cpu.core_power.cluster0\": 1 values for the 2 speeds"},
            {"", "", "<value>4</value></array>", "<value>4</value><value>2</value></array>",
             "/pp.xml: \"cpu.core_speeds.cluster1\" is missing"},
    };
    for (const Row& r : rows) {
        DeviceModel m;
        std::string error;
        EXPECT_FALSE(parse(r.from, r.to, &error, &m, r.profileFrom, r.profileTo)) << r.expected;
        EXPECT_THAT(error, HasSubstr(r.expected));
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

// The fake performance library applies the table to the locks it holds.
TEST_F(DeviceModelTest, HeldLocksBecomeLimits) {
    DeviceModel m;
    std::string error;
    ASSERT_TRUE(parse("", "", &error, &m)) << error;
    fakeperf::reset();
    fakeperf::setResources(m.resources);
    int capHigh[] = {0x42804000, 600, 0x40C00000, 1};
    int capLow[] = {0x42804000, 300};
    int boost[] = {0x40C68000, (1234 << 8) | 0x80 | 20};
    const int first = perf_lock_acq(0, 1000, capHigh, 4);
    perf_lock_acq(0, 1000, capLow, 2);
    perf_lock_acq(0, 1000, boost, 2);
    fakeperf::Limits limits = fakeperf::limits();
    EXPECT_EQ(limits.maxMhz.at("gpu"), 300);   // the lower of two caps
    EXPECT_EQ(limits.maxMhz.at("cpu0"), 500);  // level 1 down from the top
    EXPECT_EQ(limits.boosts.at(1234), -20);
    perf_lock_rel(first);
    EXPECT_EQ(fakeperf::limits().maxMhz.count("cpu0"), 0u);
    fakeperf::reset();
}

}  // namespace
