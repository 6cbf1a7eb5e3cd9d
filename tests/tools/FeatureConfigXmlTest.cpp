#include "host/tools/FeatureConfigXml.h"

#include <climits>

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using pwr::tools::FeatureConfig;
using pwr::tools::FeatureConfigXml;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Parses `xml` as "cfg.xml"; on failure the error text is returned in `error`.
bool parse(const std::string& xml, FeatureConfig* config, std::string* error) {
    return FeatureConfigXml::parseText(xml, "cfg.xml", config, error);
}

// The error for `xml`, which must not parse.
std::string errorOf(const std::string& xml) {
    FeatureConfig config;
    std::string error;
    EXPECT_FALSE(parse(xml, &config, &error)) << xml;
    return error;
}

TEST(FeatureConfigXml, ParseText_FullConfigurationMapsOntoTheRecord) {
    const std::string xml = R"(<?xml version="1.0"?>
<!-- a comment before the root -->
<Feature name="PSMPowerOptFeature">
    <Configs>
        <Config name="PSM_STATE" value="2"/>
        <Config name="GAME_TIMER" value="1000.9"/>
        <Config name="PROPS" value="vendor.a,1,vendor.b, 0"/>
    </Configs>
    <Profiles>
        <Profile name="PROFILE_LIGHT_MODE">
            <PerfLock>0x40C00000, 0x1, 0x40804000, 1500</PerfLock>
            <PerfLock>
                0x41000000, -2,   <!-- a comment between numbers -->
                7 8
            </PerfLock>
        </Profile>
        <Profile name="EMPTY"/>
    </Profiles>
    <AppList>
        <App>com.example.launcher</App>
        <App>
            com.example.systemui
        </App>
    </AppList>
</Feature>
)";
    FeatureConfig config;
    std::string error;
    ASSERT_TRUE(parse(xml, &config, &error)) << error;
    const PowerOptFeatureInfo& info = config.info;
    EXPECT_EQ(info.featureName, "PSMPowerOptFeature");
    EXPECT_EQ(config.featureLine, 3);
    ASSERT_EQ(info.configs.size(), 3u);
    EXPECT_EQ(info.configs.at("PSM_STATE"), "2");
    EXPECT_EQ(info.configs.at("GAME_TIMER"), "1000.9");
    // Values are handed over verbatim: the feature does its own parsing.
    EXPECT_EQ(info.configs.at("PROPS"), "vendor.a,1,vendor.b, 0");
    ASSERT_EQ(info.profiles.size(), 2u);
    EXPECT_THAT(info.profiles.at("PROFILE_LIGHT_MODE"),
                ElementsAre(ElementsAre(0x40C00000, 1, 0x40804000, 1500),
                            ElementsAre(0x41000000, -2, 7, 8)));
    EXPECT_TRUE(info.profiles.at("EMPTY").empty());
    EXPECT_THAT(info.appList, ElementsAre("com.example.launcher", "com.example.systemui"));
    EXPECT_EQ(config.configLines.at("PSM_STATE"), 5);
    EXPECT_EQ(config.configLines.at("PROPS"), 7);
    EXPECT_EQ(config.profileLines.at("EMPTY"), 17);
    EXPECT_EQ(config.whereConfig("GAME_TIMER"), "cfg.xml:6");
    EXPECT_EQ(config.whereConfig("ABSENT"), "cfg.xml");
    EXPECT_EQ(config.whereProfile("PROFILE_LIGHT_MODE"), "cfg.xml:10");
}

TEST(FeatureConfigXml, ParseText_SectionsAreOptional) {
    FeatureConfig config;
    std::string error;
    ASSERT_TRUE(parse("<Feature name=\"F\"/>", &config, &error)) << error;
    EXPECT_EQ(config.info.featureName, "F");
    EXPECT_TRUE(config.info.configs.empty());
    EXPECT_TRUE(config.info.profiles.empty());
    EXPECT_TRUE(config.info.appList.empty());
}

TEST(FeatureConfigXml, ParseIntList_HexAndDecimalWithin32Bits) {
    std::vector<int> list;
    std::string error;
    ASSERT_TRUE(FeatureConfigXml::parseIntList(
            "0x0, 0xFFFFFFFF,0x80000000 0X7fffffff\n-2147483648, 2147483647,", &list, &error))
            << error;
    // Hex is a bit pattern: opcodes with the top bit set become negative ints.
    EXPECT_THAT(list, ElementsAre(0, -1, INT_MIN, INT_MAX, INT_MIN, INT_MAX));
    ASSERT_TRUE(FeatureConfigXml::parseIntList("  \n ", &list, &error));
    EXPECT_TRUE(list.empty());
}

TEST(FeatureConfigXml, ParseIntList_RejectsWhatIsNotANumber) {
    struct Case {
        const char* text;
        const char* message;
        size_t offset;
    };
    const Case cases[] = {
            {"1, 0x100000000", "\"0x100000000\" does not fit in 32 bits", 3},
            {"2147483648", "\"2147483648\" is out of the int range", 0},
            {"1, 0x5DG", "\"0x5DG\" is not a number", 3},
            {"0x", "\"0x\" is not a number", 0},
            {"1.5", "\"1.5\" is not a number", 0},
            {"1,,2", "a comma with no number before it", 2},
            {", 1", "a comma with no number before it", 0},
    };
    for (const Case& c : cases) {
        std::vector<int> list;
        std::string error;
        size_t offset = 99;
        EXPECT_FALSE(FeatureConfigXml::parseIntList(c.text, &list, &error, &offset)) << c.text;
        EXPECT_THAT(error, HasSubstr(c.message)) << c.text;
        EXPECT_EQ(offset, c.offset) << c.text;
    }
}

TEST(FeatureConfigXml, ParseText_MalformedXmlNamesFileAndLine) {
    // The <Profile> opened on line 3 is closed by </Profiles> on line 4.
    EXPECT_THAT(
            errorOf("<Feature name=\"F\">\n<Profiles>\n<Profile name=\"A\">\n</Profiles>\n"
                    "</Feature>\n"),
            StartsWith(
                    "cfg.xml:3: <Profile> opened on this line is not closed: the next closing tag "
                    "names another element [XML_ERROR_MISMATCHED_ELEMENT]"));
    EXPECT_THAT(errorOf("<Feature name=\"F\">\n  <Configs>\n    <Config name=\"A\" value=\"1\n"),
                StartsWith("cfg.xml:3: "));
    EXPECT_THAT(errorOf("<Feature name=\"F\" name=\"G\"/>"), StartsWith("cfg.xml:1: malformed"));
    EXPECT_THAT(errorOf(""), StartsWith("cfg.xml: the file holds no XML element"));
}

// A configuration and the error it gets: what is wrong, and on which line of the file.
TEST(FeatureConfigXml, ParseText_EachFaultNamesItsLine) {
    const std::string profile =
            "<Feature name=\"F\">\n  <Profiles>\n    <Profile name=\"PROFILE_LIGHT_MODE\">\n"
            "      <PerfLock>\n        0x40C00000, 0x1,\n        0x40804000, 0x5DG\n"
            "      </PerfLock>\n    </Profile>\n  </Profiles>\n</Feature>\n";
    const std::pair<std::string, std::string> cases[] = {
            {"<Features name=\"F\"/>",
             "cfg.xml:1: the top-level element is <Features>; a feature configuration starts "
             "with <Feature name=\"...\">"},
            {"<Feature name=\"F\"/>\n<Feature name=\"G\"/>",
             "cfg.xml:2: more than one top-level element; the file holds one <Feature>"},
            {"<Feature name=\"F\">\n\n  <Confgs/>\n</Feature>",
             "cfg.xml:3: unexpected <Confgs> inside <Feature>; expected <Configs>, <Profiles> "
             "or <AppList>"},
            {"<Feature name=\"F\">\n<Configs>\n<Config name=\"A\" vaule=\"1\"/>\n"
             "</Configs>\n</Feature>",
             "cfg.xml:3: unknown attribute \"vaule\" on <Config>"},
            {"<Feature name=\"F\">\n<Configs/>\n<Configs/>\n</Feature>",
             "cfg.xml:3: a second <Configs> section; the first is on line 2"},
            {"<Feature name=\"F\">\n<Configs>\nPSM_STATE=1\n</Configs>\n</Feature>",
             "cfg.xml:3: unexpected text \"PSM_STATE=1\" inside <Configs>"},
            {"<Feature name=\"F\">\n<Configs>\n<Config name=\"A\" value=\"1\">2</Config>"
             "\n</Configs>\n</Feature>",
             "cfg.xml:3: <Config name=\"A\"> takes its value in value=\"...\" and has no "
             "content"},
            {"<Feature/>", "cfg.xml:1: <Feature> needs a name=\"...\" attribute"},
            {"<Feature name=\"\"/>", "cfg.xml:1: <Feature> has an empty name"},
            {"<Feature name=\"F\">\n<Configs>\n<Config name=\"PSM_STATE\"/>\n"
             "</Configs>\n</Feature>",
             "cfg.xml:3: <Config> needs a value=\"...\" attribute"},
            {"<Feature name=\"F\">\n<Configs>\n<Config name=\"A\" value=\"1\"/>\n"
             "<Config name=\"A\" value=\"2\"/>\n</Configs>\n</Feature>",
             "cfg.xml:4: config \"A\" is set twice; the first is on line 3"},
            {"<Feature name=\"F\">\n<AppList>\n<App> </App>\n</AppList>\n</Feature>",
             "cfg.xml:3: <App> is empty"},
            {profile,
             "cfg.xml:6: profile \"PROFILE_LIGHT_MODE\": \"0x5DG\" is not a number (decimal, or "
             "hex such as 0x40C00000)"},
            {"<Feature name=\"F\"><Profiles><Profile name=\"P\">\n<PerfLock>1 <x/> 2"
             "</PerfLock></Profile></Profiles></Feature>",
             "cfg.xml:2: unexpected <x> inside <PerfLock>; it holds numbers"},
    };
    for (const auto& [xml, error] : cases) EXPECT_EQ(errorOf(xml), error) << xml;
}

TEST(FeatureConfigXml, ParseFile_ReadsAFileAndNamesAnUnreadableOne) {
    TemporaryDir dir;
    const std::string path = std::string(dir.path) + "/feature.xml";
    ASSERT_TRUE(android::base::WriteStringToFile(
            "<Feature name=\"F\">\n<Configs>\n<Config name=\"A\" value=\"x\"/>\n</Configs>\n"
            "</Feature>\n",
            path));
    FeatureConfig config;
    std::string error;
    ASSERT_TRUE(FeatureConfigXml::parseFile(path, &config, &error)) << error;
    EXPECT_EQ(config.file, path);
    EXPECT_EQ(config.whereConfig("A"), path + ":3");

    ASSERT_TRUE(
            android::base::WriteStringToFile("<Feature name=\"F\">\n<Oops/>\n</Feature>", path));
    EXPECT_FALSE(FeatureConfigXml::parseFile(path, &config, &error));
    EXPECT_THAT(error, StartsWith(path + ":2: unexpected <Oops>"));

    const std::string missing = std::string(dir.path) + "/absent.xml";
    EXPECT_FALSE(FeatureConfigXml::parseFile(missing, &config, &error));
    EXPECT_EQ(error, missing + ": cannot read: No such file or directory");
}

}  // namespace
