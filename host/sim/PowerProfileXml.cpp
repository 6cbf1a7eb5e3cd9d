#include "host/sim/PowerProfileXml.h"

#include <errno.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <tinyxml2.h>

#include "host/tools/InputFile.h"

namespace pwr::sim {
namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

std::string at(const std::string& file, int line) {
    return file + ":" + std::to_string(line);
}

// A number as the framework reads it (a double); blanks around it are allowed.
bool number(const char* text, double* out) {
    const std::string trimmed = android::base::Trim(text != nullptr ? text : "");
    if (trimmed.empty()) return false;
    char* end = nullptr;
    errno = 0;
    *out = strtod(trimmed.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(*out);
}

}  // namespace

std::string PowerProfile::where(const std::string& name) const {
    auto it = lines.find(name);
    return it == lines.end() ? file : at(file, it->second);
}

bool PowerProfileXml::parseFile(const std::string& path, PowerProfile* out, std::string* error) {
    std::string content;
    if (!tools::readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

bool PowerProfileXml::parseText(std::string_view text, const std::string& name, PowerProfile* out,
                                std::string* error) {
    *out = PowerProfile{};
    out->file = name;
    XMLDocument doc;
    if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
        *error = at(name, doc.ErrorLineNum()) + ": not well-formed XML (" + doc.ErrorName() + ")";
        return false;
    }
    const XMLElement* root = doc.RootElement();
    if (root == nullptr || strcmp(root->Name(), "device") != 0) {
        *error = at(name, root != nullptr ? root->GetLineNum() : 1) +
                 ": the power profile's top element must be <device>";
        return false;
    }
    for (const XMLElement* e = root->FirstChildElement(); e != nullptr;
         e = e->NextSiblingElement()) {
        const bool array = strcmp(e->Name(), "array") == 0;
        if (!array && strcmp(e->Name(), "item") != 0) continue;  // other tags are not read
        const char* key = e->Attribute("name");
        if (key == nullptr || key[0] == '\0') {
            *error = at(name, e->GetLineNum()) + ": <" + e->Name() + "> without a name";
            return false;
        }
        auto [line, added] = out->lines.emplace(key, e->GetLineNum());
        if (!added) {
            *error = at(name, e->GetLineNum()) + ": \"" + key +
                     "\" is written twice (first on line " + std::to_string(line->second) + ")";
            return false;
        }
        std::vector<double>& values = out->values[key];
        auto read = [&](const XMLElement* holder) {
            double v = 0;
            if (!number(holder->GetText(), &v)) {
                *error = at(name, holder->GetLineNum()) + ": \"" + key + "\": \"" +
                         (holder->GetText() != nullptr ? holder->GetText() : "") +
                         "\" is not a number";
                return false;
            }
            values.push_back(v);
            return true;
        };
        if (!array) {
            if (!read(e)) return false;
            continue;
        }
        for (const XMLElement* v = e->FirstChildElement("value"); v != nullptr;
             v = v->NextSiblingElement("value")) {
            if (!read(v)) return false;
        }
    }
    return true;
}

}  // namespace pwr::sim
