#include "host/tools/EventScript.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using pwr::tools::EventScript;
using pwr::tools::ScriptEvent;

std::string errorOf(const std::string& text) {
    EventScript script;
    std::string error;
    EXPECT_FALSE(EventScript::parseText(text, "ev", &script, &error)) << text;
    return error;
}

TEST(EventScript, ParseText_EveryLineKind) {
    const std::string text =
            "# catalogue\n"
            "app com.example.game 2\n"
            "\n"
            "app com.example.video\t5   # trailing comment\n"
            "0 hint 2 1\n"
            "10 start com.example.game/.Main\n"
            "10 stop com.example.game/.Main\n"
            "20 gameoff\n"
            "30 gameoff com.example.game\n"
            "40 hint 1 3 com.example.video\n"
            "50 event 0x1093 0 com.example.game/.Main\n"
            "60 event 4099 0xFFFFFFFF\n"
            "70   end\r\n";
    EventScript script;
    std::string error;
    ASSERT_TRUE(EventScript::parseText(text, "ev", &script, &error)) << error;
    ASSERT_EQ(script.apps.size(), 2u);
    EXPECT_EQ(script.apps[0].package, "com.example.game");
    EXPECT_EQ(script.apps[0].type, 2);
    EXPECT_EQ(script.apps[1].package, "com.example.video");
    EXPECT_EQ(script.apps[1].type, 5);
    EXPECT_EQ(script.apps[1].line, 4);

    EXPECT_EQ(script.events.at(0).line, 5);
    // The hint type in bits 0-6 of hintType, the action in bits 7-14.
    std::vector<std::string> events;
    for (const ScriptEvent& e : script.events) {
        events.push_back(std::to_string(e.timeMs) + " " + e.describe());
    }
    EXPECT_THAT(events,
                ::testing::ElementsAre(
                        "0 hint type 2 action 1 (0x15E0, hintType 0x82)",
                        "10 start com.example.game/.Main (0x1001)",
                        "10 stop com.example.game/.Main (0x1002)", "20 gameoff (0x1040)",
                        "30 gameoff com.example.game (0x1040)",
                        "40 hint type 1 action 3 com.example.video (0x15E0, hintType 0x181)",
                        "50 event 0x1093 hintType 0x0 com.example.game/.Main",
                        "60 event 0x1003 hintType 0xFFFFFFFF", "70 end"));
}

TEST(EventScript, ParseText_ErrorsNameTheLine) {
    EXPECT_EQ(errorOf("0 start a\nsoon start a\n"),
              "ev:2: \"soon\" is neither \"app\" nor a time in milliseconds");
    EXPECT_EQ(errorOf("\n\n7\n"), "ev:3: a time with no event after it");
    EXPECT_EQ(errorOf("0 strat a\n"),
              "ev:1: unknown event \"strat\"; expected start, stop, gameoff, hint, event or end");
    EXPECT_EQ(errorOf("0 start\n"), "ev:1: start takes one application name");
    EXPECT_EQ(errorOf("0 gameoff a b\n"), "ev:1: gameoff takes at most an application name");
    EXPECT_EQ(errorOf("0 hint 1\n"),
              "ev:1: hint takes <type> <action> and optionally an application");
    EXPECT_EQ(errorOf("0 hint 128 1\n"), "ev:1: hint type \"128\" is not a number from 0 to 127");
    EXPECT_EQ(errorOf("0 hint 1 256\n"), "ev:1: hint action \"256\" is not a number from 0 to 255");
    EXPECT_EQ(errorOf("0 event 0x1001 -1\n"),
              "ev:1: hintType \"-1\" is not an unsigned 32-bit number");
    EXPECT_EQ(errorOf("0 event 0x100000000 0\n"),
              "ev:1: hintId \"0x100000000\" is not a 32-bit number");
    EXPECT_EQ(errorOf("10 start a\n9 stop a\n"),
              "ev:2: time 9 ms is before the previous event's 10 ms (line 1); times must not "
              "decrease");
    EXPECT_EQ(errorOf("10 end\n20 start a\n"), "ev:2: an event after \"end\" (line 1)");
    EXPECT_EQ(errorOf("0 end now\n"), "ev:1: end takes nothing after it");
    EXPECT_EQ(errorOf("app a\n"), "ev:1: app takes <package> <type>");
    EXPECT_EQ(errorOf("app a game\n"), "ev:1: app type \"game\" is not a number");
    EXPECT_EQ(errorOf("app a 2\n\napp a 3\n"),
              "ev:3: app a is listed twice; the first is on line 1");
}

// A '#' opens a comment only at the start of a line or after a blank.
TEST(EventScript, ParseText_AHashInsideAWordIsPartOfIt) {
    EventScript script;
    std::string error;
    ASSERT_TRUE(EventScript::parseText("0 start a#b #c\n1 stop a\t# d\n", "ev", &script, &error))
            << error;
    ASSERT_EQ(script.events.size(), 2u);
    EXPECT_EQ(script.events[0].payload.appName, "a#b");
    EXPECT_EQ(script.events[1].payload.appName, "a");
}

}  // namespace
