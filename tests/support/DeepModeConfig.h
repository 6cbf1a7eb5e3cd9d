#pragma once

#include <string>
#include <vector>

#include "feature/PowerOptFeature.h"
#include "tests/support/TestConfig.h"

namespace pwr::test {

// The state store's directory, part of the device's image: a fake tree must provide it.
inline constexpr char kStoreDirectory[] = "/data/vendor/pwr";

// Opcodes of the deep-mode configuration below, as the fake performance library receives them.
inline constexpr int kDeepProfileOpcode = 0x40C10000;
inline constexpr int kTaskBoostOpcode = 0x40C68000;

// Property pairs carried by deepModeConfig() under "DEEP_PROPS", and the "PSM" entry that the
// deep-mode set-up must skip.
inline constexpr char kDeepProps[] = "vendor.pwr.wifi_scan,7,vendor.pwr.sync,8,vendor.pwr.anim,9";
inline constexpr char kPsmEntry[] = "vendor.pwr.psm_only,6";

// A configuration with deep mode on and every battery-monitor setting present: thresholds in mA
// (game 700/100, browser 800/200, video 900/300), MAX_SAMPLE_NUM 5, a task-load scaling of -20.
//
// The deep-mode set-up takes every setting's value as property text too, so every token of every
// value is distinct ("-0" for GPUMode): a name that occurred twice in the property list would be
// set twice, and its second save would record deep mode's own value.
inline PowerOptFeatureInfo deepModeConfig(const std::string& psmState = "0") {
    PowerOptFeatureInfo info = minimalConfig(psmState);
    info.configs["DEEP_MODE"] = "1";
    info.configs["GPUMode"] = "-0";
    info.configs["VIDEO_SCALING_UP"] = "900";
    info.configs["BROWSER_SCALING_UP"] = "800";
    info.configs["GAME_SCALING_UP"] = "700";
    info.configs["VIDEO_SCALING_DOWN"] = "300";
    info.configs["BROWSER_SCALING_DOWN"] = "200";
    info.configs["GAME_SCALING_DOWN"] = "100";
    info.configs["MAX_SAMPLE_NUM"] = "5";
    info.configs["SCALING_DOWN_TASK_LOAD_BOOST"] = "-20";
    info.configs["CPUNODE"] = "cpu0";
    info.configs["CPUPOLICY"] = "policy0";
    info.configs["DEEP_PROPS"] = kDeepProps;
    info.configs["PSM"] = kPsmEntry;
    info.profiles["DEFAULT"] = {{kDeepProfileOpcode, 0x3, 0x40800000, 0x4B0}};
    info.profiles["PSM_OPT_RESOURCE"] = {{kTaskBoostOpcode}};
    info.appList = {"com.example.ignored"};
    return info;
}

// The comma-separated tokens of `text`, empty ones dropped.
inline std::vector<std::string> splitTokens(const std::string& text) {
    std::vector<std::string> tokens;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = text.find(',', start);
        const std::string token =
                text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!token.empty()) tokens.push_back(token);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return tokens;
}

}  // namespace pwr::test
