#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace pwr::sim {

// Android's power profile (power_profile.xml, as a device ships it in its framework overlay):
// a <device> element of <item name="...">number</item> and
// <array name="..."><value>number</value>...</array> entries.
struct PowerProfile {
    std::string file;
    std::map<std::string, std::vector<double>> values;  // an <item> is a one-value list
    std::map<std::string, int> lines;                   // where each name was written

    // "<file>:<line>" of `name`, or just the file when it is not there.
    std::string where(const std::string& name) const;
};

// Reads power_profile.xml. False with `error` set to one line "<file>:<line>: <what>" for XML
// that is not well formed, an entry without a name or written twice, or a value that is not a
// number; nothing throws. Entries this tool does not use are kept, unchecked beyond that.
class PowerProfileXml {
  public:
    static bool parseFile(const std::string& path, PowerProfile* out, std::string* error);
    static bool parseText(std::string_view text, const std::string& name, PowerProfile* out,
                          std::string* error);
};

}  // namespace pwr::sim
