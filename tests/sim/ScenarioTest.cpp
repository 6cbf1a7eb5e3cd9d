#include "host/sim/Scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using pwr::sim::Scenario;

constexpr char kValid[] = R"({
    "name": "mixed",
    "config": "cfg/game.xml",
    "duration": 90.5,
    "debug": true,
    "apps": {"com.example.game": "game", "com.example.tool": 7},
    "properties": {"vendor.a": "0"},
    "gpu": {
        "frequencies_mhz": [300, 100, 200],
        "trace": [
            {"t": 0, "freq_mhz": 150, "busy": 20},
            {"t": 10, "freq_mhz": 300, "busy": 80, "busy_swing": 5, "swing_period": 2,
             "residency": {"200": 1, "300": 3}}
        ]
    },
    "battery": {"trace": [{"t": 0, "drain_ma": 300}, {"t": 0.25, "drain_ma": -50}]},
    "foreground": {"trace": [{"t": 1, "processes": [{"pid": 42, "cmdline": "app"},
                                                    {"pid": 7, "cmdline": ""}]}]},
    "events": [
        {"t": 0.001, "event": "hint 2 1"},
        {"t": 5, "event": "start com.example.game/.Main", "note": "a game"},
        {"t": 9, "note": "only a note"}
    ]
})";

// kValid's events, each as describe() gives it.
const char* const kValidEvents[] = {"1 hint type 2 action 1 (0x15E0, hintType 0x82) / ",
                                    "5000 start com.example.game/.Main (0x1001) / a game",
                                    "9000 / only a note"};

// An event as one text: its time, what it does and its note.
std::string describe(const pwr::sim::ScenarioEvent& e) {
    return std::to_string(e.timeMs) + (e.hasEvent ? " " + e.event.describe() : "") + " / " + e.note;
}

bool parse(const std::string& text, Scenario* out, std::string* error) {
    return Scenario::parseText(text, "dir/s.json", out, error);
}

std::string errorOf(const std::string& text) {
    Scenario scenario;
    std::string error;
    EXPECT_FALSE(parse(text, &scenario, &error)) << text;
    return error;
}

TEST(Scenario, ParseText_ReadsEverySection) {
    Scenario s;
    std::string error;
    ASSERT_TRUE(parse(kValid, &s, &error)) << error;
    EXPECT_EQ(s.name, "mixed");
    EXPECT_EQ(s.configPath, "dir/cfg/game.xml");  // resolved against the scenario's folder
    EXPECT_EQ(s.durationMs, 90500);
    EXPECT_TRUE(s.debug);
    ASSERT_EQ(s.apps.size(), 2u);
    EXPECT_EQ(s.apps[0].package, "com.example.game");
    EXPECT_EQ(s.apps[0].type, 2);
    EXPECT_EQ(s.apps[1].type, 7);
    EXPECT_EQ(s.properties.at("vendor.a"), "0");
    EXPECT_THAT(s.gpuFrequenciesMhz, ::testing::ElementsAre(100, 200, 300));
    ASSERT_EQ(s.gpu.size(), 2u);
    EXPECT_EQ(s.gpu[1].timeMs, 10000);
    EXPECT_EQ(s.gpu[1].swingPeriodMs, 2000);
    EXPECT_DOUBLE_EQ(s.gpu[1].residency.at(200), 0.25);  // shares are normalised
    EXPECT_DOUBLE_EQ(s.gpu[1].residency.at(300), 0.75);
    ASSERT_EQ(s.battery.size(), 2u);
    EXPECT_EQ(s.battery[1].timeMs, 250);
    EXPECT_DOUBLE_EQ(s.battery[1].drainMa, -50);
    ASSERT_EQ(s.foreground.size(), 1u);
    EXPECT_EQ(s.foreground[0].processes[1].pid, 7);
    EXPECT_EQ(s.foreground[0].processes[1].cmdline, "");
    std::vector<std::string> events;
    for (const auto& e : s.events) events.push_back(describe(e));
    EXPECT_THAT(events, ::testing::ElementsAreArray(kValidEvents));
}

TEST(Scenario, ParseText_SyntaxErrorsNameLineAndColumn) {
    EXPECT_THAT(errorOf("{\n  \"duration\": 5,\n  \"name\": \"x\"\n  \"debug\": true\n}"),
                ::testing::StartsWith("dir/s.json:4:9: syntax error while parsing object - "
                                      "unexpected string literal"));
    EXPECT_THAT(errorOf(""), ::testing::StartsWith("dir/s.json:1:1: "));
    // A number beyond a double's range is reported where it stands, not thrown.
    EXPECT_EQ(errorOf("{\n  \"duration\": 1e400\n}"),
              "dir/s.json:2:15: number overflow parsing '1e400'");
}

// Each mistake is reported once, naming the key path.
TEST(Scenario, ParseText_InvalidScenariosNameTheKey) {
    EXPECT_EQ(errorOf("[]"), "dir/s.json: must be an object with the scenario, not array");
    EXPECT_EQ(errorOf("{}"), "dir/s.json: \"duration\" is missing");
    EXPECT_EQ(errorOf(R"({"duration": 5, "evnets": []})"),
              "dir/s.json: evnets: unknown key; expected one of name, description, config, "
              "duration, debug, apps, properties, gpu, battery, foreground, events");
    EXPECT_EQ(errorOf(R"({"duration": "5"})"),
              "dir/s.json: duration: must be a number, not string");
    EXPECT_EQ(errorOf(R"({"duration": -1})"), "dir/s.json: duration: -1 is outside 0 to 2.592e+06");
    EXPECT_EQ(errorOf(R"({"duration": 5, "apps": {"a": "film"}})"),
              "dir/s.json: apps.a: \"film\" is not an application type; expected game, browser, "
              "video, other or a number");
    EXPECT_EQ(
            errorOf(R"({"duration": 5, "events": [{"t": 2, "note": "a"}, {"t": 1, "note": "b"}]})"),
            "dir/s.json: events[1].t: is before the previous point's time; times must not "
            "decrease");
    EXPECT_EQ(errorOf(R"({"duration": 5, "events": [{"t": 1}]})"),
              "dir/s.json: events[0]: needs \"event\", \"note\" or both");
    EXPECT_EQ(errorOf(R"({"duration": 5, "events": [{"t": 1, "event": "end"}]})"),
              "dir/s.json: events[0].event: \"end\" is not an event here; the scenario's "
              "duration ends it");
    EXPECT_EQ(errorOf(R"({"duration": 5, "gpu": {"frequencies_mhz": [100, 200],
                          "trace": [{"t": 0, "freq_mhz": 150, "busy": 5, "busy_swing": 3}]}})"),
              "dir/s.json: gpu.trace[0]: \"busy_swing\" and \"swing_period\" go together");
    EXPECT_EQ(errorOf(R"({"duration": 5, "gpu": {"frequencies_mhz": [100, 200],
                          "trace": [{"t": 0, "freq_mhz": 150, "busy": 5,
                                     "residency": {"150": 1}}]}})"),
              "dir/s.json: gpu.trace[0].residency.150: is not a frequency of frequencies_mhz");
    EXPECT_EQ(errorOf(R"({"duration": 5, "foreground": {"trace": [{"t": 0, "processes":
                          [{"pid": 3, "cmdline": "a"}, {"pid": 3, "cmdline": "b"}]}]}})"),
              "dir/s.json: foreground.trace[0].processes[1].pid: is listed twice");
    EXPECT_EQ(errorOf(R"({"duration": 5, "properties": {"a/b": "1"}})"),
              "dir/s.json: properties.a/b: is not a property name");
    // What a lenient reader would take silently: the last of two keys, a NUL cutting a name.
    EXPECT_EQ(errorOf(R"({"duration": 5, "apps": {"g": "game", "g": "video"}})"),
              "dir/s.json: apps.g: is given twice in one object; say it once");
    EXPECT_EQ(errorOf(R"({"duration": 5, "apps": {"a\u0000b": "game"}})"),
              "dir/s.json: apps.a\\u0000b: the key holds a NUL character (\\u0000)");
    // The duration may come after the events; the latest event is checked against it then.
    EXPECT_EQ(
            errorOf(R"({"events": [{"t": 1, "note": "a"}, {"t": 7, "note": "b"}], "duration": 5})"),
            "dir/s.json: events[1].t: is after the scenario's duration");
}

// Events not kept are read again, one at a time, exactly as a kept list holds them.
TEST(Scenario, ForEachEvent_ReadsAgainWhatWasNotKept) {
    Scenario kept;
    Scenario streamed;
    std::string error;
    ASSERT_TRUE(Scenario::parseText(kValid, "dir/s.json", &kept, &error)) << error;
    ASSERT_TRUE(Scenario::parseText(kValid, "dir/s.json", &streamed, &error, false)) << error;
    EXPECT_TRUE(streamed.events.empty());
    EXPECT_EQ(streamed.eventCount, kept.events.size());
    std::vector<std::string> seen;
    ASSERT_FALSE(streamed.forEachEvent(
            [&](const pwr::sim::ScenarioEvent& e) {
                seen.push_back(describe(e));
                return seen.size() < 2;  // stops after the second
            },
            &error));
    EXPECT_EQ(error, "");
    EXPECT_THAT(seen, ::testing::ElementsAre(kValidEvents[0], kValidEvents[1]));
}

}  // namespace
