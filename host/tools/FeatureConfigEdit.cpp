#include "host/tools/FeatureConfigEdit.h"

#include <cstring>
#include <set>

#include <tinyxml2.h>

namespace pwr::tools {

bool FeatureConfigEdit::setConfigs(std::string_view text, const std::string& name,
                                   const std::map<std::string, std::string>& values,
                                   std::string* out, std::string* error) {
    tinyxml2::XMLDocument doc;
    if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
        *error = name + ":" + std::to_string(doc.ErrorLineNum()) + ": not well-formed XML (" +
                 doc.ErrorName() + ")";
        return false;
    }
    std::set<std::string> found;
    tinyxml2::XMLElement* root = doc.RootElement();
    tinyxml2::XMLElement* configs = root != nullptr ? root->FirstChildElement("Configs") : nullptr;
    for (tinyxml2::XMLElement* config = configs != nullptr ? configs->FirstChildElement("Config")
                                                           : nullptr;
         config != nullptr; config = config->NextSiblingElement("Config")) {
        const char* key = config->Attribute("name");
        auto it = key != nullptr ? values.find(key) : values.end();
        if (it == values.end()) continue;
        config->SetAttribute("value", it->second.c_str());
        found.insert(it->first);
    }
    for (const auto& [key, value] : values) {
        if (found.count(key) == 0) {
            *error = name + ": no <Config name=\"" + key + "\"> to set to " + value;
            return false;
        }
    }
    tinyxml2::XMLPrinter printer;
    doc.Print(&printer);
    out->assign(printer.CStr(), static_cast<size_t>(printer.CStrSize() - 1));
    return true;
}

}  // namespace pwr::tools
