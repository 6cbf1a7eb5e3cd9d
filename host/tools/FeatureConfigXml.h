#pragma once

#include <map>
#include <string>
#include <string_view>

#include "feature/PowerOptFeature.h"

namespace pwr::tools {

// A feature configuration read from XML: the record the host hands to the feature's factory,
// plus where each entry was written, so that later checks can name the file and line.
struct FeatureConfig {
    std::string file;  // the name used in messages
    PowerOptFeatureInfo info;
    int featureLine = 0;
    std::map<std::string, int> configLines;   // <Config> name -> line
    std::map<std::string, int> profileLines;  // <Profile> name -> line

    // "<file>:<line>" of the <Config> named `key`, or just the file when there is none.
    std::string whereConfig(const std::string& key) const;
    // The same for a <Profile>.
    std::string whereProfile(const std::string& name) const;
};

// Reads the XML feature configuration format (docs/config-format.md) into a FeatureConfig.
// Every failure is reported as one line "<file>:<line>: <what is wrong>"; nothing throws.
class FeatureConfigXml {
  public:
    // Reads and parses the file at `path`. False, with `error` set, when the file cannot be read
    // or is not a valid configuration; `out` is then unspecified.
    static bool parseFile(const std::string& path, FeatureConfig* out, std::string* error);

    // Parses `text` as the content of a file called `name` (used only in messages).
    static bool parseText(std::string_view text, const std::string& name, FeatureConfig* out,
                          std::string* error);

    // Parses one perf-lock argument list: numbers separated by commas and/or whitespace, each
    // decimal (optionally negative) or 0x hex of at most 32 bits. False with `error` set to a
    // message (without file or line) naming the offending text; `badOffset` gets its position.
    static bool parseIntList(std::string_view text, std::vector<int>* out, std::string* error,
                             size_t* badOffset = nullptr);
};

}  // namespace pwr::tools
