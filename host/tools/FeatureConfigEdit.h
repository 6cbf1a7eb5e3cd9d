#pragma once

#include <map>
#include <string>
#include <string_view>

namespace pwr::tools {

// Writes variants of an XML feature configuration (docs/config-format.md): the same file with
// some <Config> values replaced, comments and everything else kept, for tools that try a
// configuration with other values.
class FeatureConfigEdit {
  public:
    // `text`, the content of the configuration called `name`, with the value of each <Config>
    // named in `values` replaced. False with `error` set to "<name>: ..." when the text is not
    // XML or a named <Config> is not in it; a config is never added, since a misspelt key would
    // then be silently ignored by the feature.
    static bool setConfigs(std::string_view text, const std::string& name,
                           const std::map<std::string, std::string>& values, std::string* out,
                           std::string* error);
};

}  // namespace pwr::tools
