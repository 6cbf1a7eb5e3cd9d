// The importers' handling of what real captures and traces hold: a table of inputs with the
// warning or error each must name (with its line), and the values a small capture must give.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/sim/AppCatalogue.h"
#include "host/sim/Capture.h"
#include "host/sim/CaptureImport.h"
#include "host/sim/TraceImport.h"

namespace {

using namespace pwr::sim;
using ::testing::Contains;
using ::testing::HasSubstr;

// Lines 1-6: a two-level GPU (200 and 100 MHz).
const std::string kHeader =
        "pwr-capture 1\nperiod 1.00\nactivity_every 1\nprop vendor.a 1\nprop vendor.unset\n"
        "gpu_available_frequencies 200000000 100000000\n";

// Six lines, then `more`; the node lines come in the script's order, `without` left out.
std::string sample(const std::string& time, const std::string& stats, const std::string& more = "",
                   const std::string& without = "") {
    std::string text = "sample " + time + "\n";
    for (const std::string& line :
         {std::string("gpuclk 100000000"), std::string("gpubusy 25 100"),
          "gpu_clock_stats " + stats, std::string("current_now -300000"), std::string("top 12")}) {
        if (without.empty() || line.rfind(without + " ", 0) != 0) text += line + "\n";
    }
    return text + more;
}

struct Result {
    bool ok = false;
    std::string error;
    std::vector<std::string> warnings;
    Scenario scenario;
};

Result importCapture(const std::string& text, const AppCatalogue* catalogue = nullptr) {
    Result r;
    Capture capture;
    if (!Capture::parseText(text, "capture.txt", &capture, &r.error)) return r;
    r.warnings = capture.warnings;
    r.ok = CaptureImport::run(capture, catalogue, &r.scenario, &r.warnings, &r.error);
    return r;
}

struct Row {
    const char* what;
    std::string text;
    bool fails;
    const char* expect;  // the start of the error, or of one warning
};

// A failing row's error, or else one of its warnings, names what is wrong.
void expectOutcome(const Row& row, bool ok, const std::string& error,
                   const std::vector<std::string>& warnings) {
    EXPECT_EQ(ok, !row.fails) << row.what << ": " << error;
    if (row.fails) {
        EXPECT_THAT(error, HasSubstr(row.expect)) << row.what;
    } else {
        EXPECT_THAT(warnings, Contains(HasSubstr(row.expect))) << row.what;
    }
}

TEST(CaptureImport, EachFaultNamesItsLine) {
    const std::string start = kHeader + sample("10.00", "0 0", "cmdline 12 app\n");  // lines 7-13
    const Row rows[] = {
            {"truncated", start + sample("11.00", "0 1000") + "sample 12.00\ngpuclk 1000", false,
             "capture.txt:20: the capture ends inside this sample"},
            {"no end line", start + sample("11.00", "0 1000"), false,
             "capture.txt:19: no \"end\" line"},
            {"node line lacking",
             start + sample("11.00", "0 1000", "", "gpubusy") + "end 11.00 duration\n", false,
             "capture.txt:14: gpubusy has no line in the sample"},
            {"node unreadable", start + sample("11.00", "0 1000", "missing gpubusy\n", "gpubusy"),
             false, "capture.txt:19: gpubusy could not be read on the phone"},
            {"counter backwards", start + sample("11.00", "500 500") + sample("12.00", "400 900"),
             false,
             "capture.txt:23: gpu_clock_stats: the counter of 200 MHz went back from 500 "
             "to 400"},
            {"gap", start + sample("15.00", "0 5000"), false, "capture.txt:14: no sample for 5 s"},
            {"uncovered package", start + sample("11.00", "0 1", "activity com.x/.A\n"), false,
             "no catalogue given: com.x"},
            {"another frequency table", start + sample("11.00", "1 2 3"), true,
             "capture.txt:17: gpu_clock_stats: 3 counters, but the frequency table of line "
             "6 has 2"},
            {"clock off the table",
             start + "sample 11.00\ngpuclk 300000000\ngpubusy 1 2\ngpu_clock_stats 0 1\n"
                     "current_now 0\ntop\n",
             true, "capture.txt:15: gpuclk: 300000000 Hz is not in the frequency table"},
            {"time back", start + sample("9.00", "0 0"), true,
             "capture.txt:14: sample: time 9 s is not after"},
            {"one sample", start, true, "capture.txt:7: a capture needs two samples"},
            {"not a capture", "hello\n", true, "capture.txt:1: not a capture"},
            {"line twice", start + "current_now -3\n", true,
             "capture.txt:14: current_now: a second line for it in the sample of line 7"},
            {"bad value", kHeader + "sample 1.00\ncurrent_now 3.5\n", true,
             "capture.txt:8: current_now: \"3.5\" is not a whole number"},
            {"unknown line", start + "volts 3\n", true,
             "capture.txt:14: \"volts\" is not a line of a capture"},
            {"joined captures", start + kHeader, true,
             "capture.txt:14: a second capture starts here"},
    };
    for (const Row& row : rows) {
        const Result r = importCapture(row.text);
        expectOutcome(row, r.ok, r.error, r.warnings);
    }
}

// A small capture by hand: the values follow from its numbers alone.
TEST(CaptureImport, SmallCapture_GivesTracesEventsAppsAndProperties) {
    AppCatalogue catalogue;
    std::string error;
    ASSERT_TRUE(AppCatalogue::parseText("com.g game  # a game\n", "apps", &catalogue, &error));
    const Result r = importCapture(
            kHeader + sample("10.00", "0 0", "cmdline 12 com.g\nactivity com.g/.Main\n") +
                    sample("11.00", "250000 750000") +
                    sample("12.00", "1250000 750000", "activity\n") + "end 12.00 duration\n",
            &catalogue);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_TRUE(r.warnings.empty()) << r.warnings.front();
    const Scenario& s = r.scenario;
    EXPECT_EQ(s.durationMs, 2000);
    EXPECT_EQ(s.gpuFrequenciesMhz, (std::vector<uint64_t>{100, 200}));
    ASSERT_EQ(s.gpu.size(), 2u);
    EXPECT_EQ(s.gpu[0].timeMs, 0);
    EXPECT_DOUBLE_EQ(s.gpu[0].freqMhz, 125);  // a quarter of the time at 200, the rest at 100
    EXPECT_EQ(s.gpu[0].residency, (std::map<uint64_t, double>{{100, 0.75}, {200, 0.25}}));
    EXPECT_DOUBLE_EQ(s.gpu[0].busy, 25);
    EXPECT_DOUBLE_EQ(s.gpu[1].freqMhz, 200);
    ASSERT_EQ(s.battery.size(), 1u);
    EXPECT_DOUBLE_EQ(s.battery[0].drainMa, 300);
    ASSERT_EQ(s.foreground.size(), 1u);
    ASSERT_EQ(s.foreground[0].processes.size(), 1u);
    EXPECT_EQ(s.foreground[0].processes[0].cmdline, "com.g");
    ASSERT_EQ(s.events.size(), 2u);
    EXPECT_EQ(s.events[0].event.describe(), "start com.g/.Main (0x1001)");
    EXPECT_EQ(s.events[1].timeMs, 2000);
    EXPECT_EQ(s.events[1].event.describe(), "stop com.g/.Main (0x1002)");
    ASSERT_EQ(s.apps.size(), 1u);
    EXPECT_EQ(s.apps[0].type, 2);
    EXPECT_EQ(s.properties, (std::map<std::string, std::string>{{"vendor.a", "1"}}));
}

TEST(AppCatalogue, NamesTheLineOfABadEntry) {
    AppCatalogue catalogue;
    std::string error;
    EXPECT_FALSE(AppCatalogue::parseText("a game\nb gaem\n", "apps", &catalogue, &error));
    EXPECT_THAT(error, HasSubstr("apps:2: \"gaem\" is not an application type"));
    EXPECT_FALSE(AppCatalogue::parseText("a game\n\na 3\n", "apps", &catalogue, &error));
    EXPECT_EQ(error, "apps:3: a is listed twice; the first is on line 1");
}

TEST(TraceImport, EachFaultNamesItsEvent) {
    const Row rows[] = {
            {"not json", "{\"traceEvents\": [", true, "t.json: not JSON"},
            {"value not a number",
             R"j([{"ph":"C","name":"GPU busy (%)","ts":0,"args":{"%":"x"}}])j", true,
             "t.json: traceEvents[0].args.%: must be a number"},
            {"busy alone", R"j([{"ph":"C","name":"GPU busy (%)","ts":0,"args":{"%":5}}])j", true,
             "GPU busy without a GPU frequency series"},
            {"frequency off the table",
             R"j([{"ph":"C","name":"gpufreq","ts":0,"args":{"value":100000}},
                             {"ph":"C","name":"gpufreq","ts":9,"args":{"value":900000}}])j",
             true, "t.json: traceEvents[1]: GPU frequency 900 MHz is outside the table"},
            {"nothing known", R"j({"traceEvents":[{"ph":"C","name":"x","ts":0,"args":{"v":1}}]})j",
             true, "no counter series this import knows"},
            {"unknown series listed",
             R"j([{"ph":"C","name":"batt.current_ua","ts":5e6,"args":{"value":-250000}},
                             {"ph":"C","name":"batt.current_ua","ts":6e6,"args":{"value":-250000}},
                             {"ph":"C","name":"x","ts":0,"args":{"v":1}}])j",
             false, "counters not imported (no mapping; see --track): \"x\""},
    };
    TraceImport::Options options;
    options.gpuTableMhz = {100, 200};
    for (const Row& row : rows) {
        Scenario s;
        std::vector<std::string> warnings;
        std::string error;
        const bool ok = TraceImport::run(row.text, "t.json", options, &s, &warnings, &error);
        expectOutcome(row, ok, error, warnings);
    }
}

// A converted system trace's battery counter: microamperes, negative while discharging, from
// the first point's time on.
TEST(TraceImport, BatteryCurrentBecomesDrainFromTheFirstPoint) {
    Scenario s;
    std::vector<std::string> warnings;
    std::string error;
    ASSERT_TRUE(TraceImport::run(
            R"j([{"ph":"C","name":"batt.current_ua","ts":5e6,"args":{"value":-250000}},
                                     {"ph":"C","name":"batt.current_ua","ts":7.5e6,"args":{"value":120000}}])j",
            "t.json", {}, &s, &warnings, &error))
            << error;
    ASSERT_EQ(s.battery.size(), 2u);
    EXPECT_EQ(s.battery[0].timeMs, 0);
    EXPECT_DOUBLE_EQ(s.battery[0].drainMa, 250);
    EXPECT_EQ(s.battery[1].timeMs, 2500);
    EXPECT_DOUBLE_EQ(s.battery[1].drainMa, -120);
    EXPECT_EQ(s.durationMs, 2500);
}

TEST(TrackMapping, ParsesSeriesTargetAndFactor) {
    TrackMapping m;
    std::string error;
    ASSERT_TRUE(TrackMapping::parse("power.rail=drain_ma*-0.001", &m, &error)) << error;
    EXPECT_EQ(m.series, "power.rail");
    EXPECT_EQ(m.target, TrackMapping::Target::DrainMa);
    EXPECT_DOUBLE_EQ(m.factor, -0.001);
    EXPECT_FALSE(TrackMapping::parse("x=volts", &m, &error));
    EXPECT_THAT(error, HasSubstr("\"volts\" is not a trace"));
    EXPECT_FALSE(TrackMapping::parse("x=gpu_busy*0", &m, &error));
}

}  // namespace
