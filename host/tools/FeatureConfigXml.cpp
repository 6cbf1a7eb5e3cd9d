#include "host/tools/FeatureConfigXml.h"

#include <errno.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <tinyxml2.h>

#include "host/tools/InputFile.h"

namespace pwr::tools {
namespace {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;
using tinyxml2::XMLError;
using tinyxml2::XMLNode;
using tinyxml2::XMLText;

constexpr char kRoot[] = "Feature";
constexpr char kConfigs[] = "Configs";
constexpr char kConfig[] = "Config";
constexpr char kProfiles[] = "Profiles";
constexpr char kProfile[] = "Profile";
constexpr char kPerfLock[] = "PerfLock";
constexpr char kAppList[] = "AppList";
constexpr char kApp[] = "App";

// XML's white space.
bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isBlank(const char* text) {
    return android::base::Trim(text).empty();
}

int linesBefore(std::string_view text, size_t offset) {
    int lines = 0;
    for (size_t i = 0; i < offset && i < text.size(); ++i) lines += text[i] == '\n' ? 1 : 0;
    return lines;
}

// The line of the character at `offset` of a text node. tinyxml2 numbers a text node by its first
// character that is not white space, though its value keeps the white space before it.
int lineOf(const XMLText* text, size_t offset) {
    const std::string_view value(text->Value());
    size_t first = 0;
    while (first < value.size() && isSpace(value[first])) ++first;
    return text->GetLineNum() + linesBefore(value, offset) - linesBefore(value, first);
}

// What a tinyxml2 error means to someone editing the file.
const char* describe(XMLError error) {
    switch (error) {
        case tinyxml2::XML_ERROR_PARSING_ELEMENT:
            return "malformed element";
        case tinyxml2::XML_ERROR_PARSING_ATTRIBUTE:
            return "malformed attribute (attributes are name=\"value\", each name once)";
        case tinyxml2::XML_ERROR_PARSING_TEXT:
            return "malformed text (a '<' or '&' that is not markup?)";
        case tinyxml2::XML_ERROR_PARSING_CDATA:
            return "malformed CDATA section";
        case tinyxml2::XML_ERROR_PARSING_COMMENT:
            return "unterminated comment";
        case tinyxml2::XML_ERROR_PARSING_DECLARATION:
            return "malformed <?xml ...?> declaration";
        case tinyxml2::XML_ERROR_PARSING_UNKNOWN:
            return "malformed <!...> markup";
        case tinyxml2::XML_ERROR_EMPTY_DOCUMENT:
            return "the file holds no XML element";
        case tinyxml2::XML_ERROR_MISMATCHED_ELEMENT:
            return "a closing tag does not match the open element";
        case tinyxml2::XML_ELEMENT_DEPTH_EXCEEDED:
            return "elements nested too deeply";
        default:
            return "malformed XML";
    }
}

class Parser {
  public:
    Parser(const std::string& file, FeatureConfig* out, std::string* error)
        : mFile(file), mOut(out), mError(error) {}

    bool parse(std::string_view text) {
        XMLDocument doc;
        if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
            const std::string detail = detailOf(doc.ErrorStr());
            std::string message;
            // tinyxml2 reports a bad closing tag at the element it should have closed.
            const std::string elementPrefix = "XMLElement name=";
            if (doc.ErrorID() == tinyxml2::XML_ERROR_MISMATCHED_ELEMENT &&
                detail.rfind(elementPrefix, 0) == 0) {
                message = "<" + detail.substr(elementPrefix.size()) +
                          "> opened on this line is not closed: the next closing tag names "
                          "another element";
            } else {
                message = describe(doc.ErrorID());
                if (!detail.empty()) message += " (" + detail + ")";
            }
            return fail(doc.ErrorLineNum(), message + " [" + doc.ErrorName() + "]");
        }
        const XMLElement* root = nullptr;
        for (const XMLNode* node = doc.FirstChild(); node != nullptr; node = node->NextSibling()) {
            if (const XMLElement* element = node->ToElement()) {
                if (root != nullptr) {
                    return fail(element->GetLineNum(),
                                "more than one top-level element; the file holds one <Feature>");
                }
                root = element;
            } else if (const XMLText* text = node->ToText(); text != nullptr) {
                if (!isBlank(text->Value())) {
                    return fail(text->GetLineNum(), "text outside the <Feature> element");
                }
            }
        }
        if (root == nullptr) return fail(0, "the file holds no <Feature> element");
        return parseFeature(root);
    }

  private:
    // tinyxml2 ends ErrorStr() with ": <detail>" when it knows which element failed.
    static std::string detailOf(const char* errorStr) {
        if (errorStr == nullptr) return "";
        std::string_view s(errorStr);
        size_t lineAt = s.find("Line number=");
        if (lineAt == std::string_view::npos) return "";
        size_t colon = s.find(": ", lineAt);
        if (colon == std::string_view::npos) return "";
        return std::string(s.substr(colon + 2));
    }

    bool fail(int line, const std::string& message) {
        if (line > 0) {
            *mError = mFile + ":" + std::to_string(line) + ": " + message;
        } else {
            *mError = mFile + ": " + message;
        }
        return false;
    }

    static std::string tag(const XMLElement* e) { return std::string("<") + e->Name() + ">"; }

    // Rejects attributes outside `allowed`, so that a misspelt one is not silently ignored.
    bool onlyAttributes(const XMLElement* e, std::initializer_list<const char*> allowed) {
        for (const XMLAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
            bool known = false;
            for (const char* name : allowed) known = known || strcmp(a->Name(), name) == 0;
            if (!known) {
                return fail(e->GetLineNum(),
                            "unknown attribute \"" + std::string(a->Name()) + "\" on " + tag(e));
            }
        }
        return true;
    }

    // A required, non-empty attribute.
    bool required(const XMLElement* e, const char* name, std::string* value) {
        const char* text = e->Attribute(name);
        if (text == nullptr) {
            return fail(e->GetLineNum(),
                        tag(e) + " needs a " + std::string(name) + "=\"...\" attribute");
        }
        *value = text;
        return true;
    }

    // Visits the child elements of a structural element; text other than white space is an
    // error, comments are skipped.
    template <typename Visit>
    bool children(const XMLElement* parent, Visit visit) {
        for (const XMLNode* node = parent->FirstChild(); node != nullptr;
             node = node->NextSibling()) {
            if (const XMLElement* element = node->ToElement()) {
                if (!visit(element)) return false;
            } else if (const XMLText* text = node->ToText(); text != nullptr) {
                if (!isBlank(text->Value())) {
                    return fail(text->GetLineNum(), "unexpected text \"" +
                                                            android::base::Trim(text->Value()) +
                                                            "\" inside " + tag(parent));
                }
            }
        }
        return true;
    }

    bool unexpected(const XMLElement* e, const XMLElement* parent, const char* expected) {
        return fail(e->GetLineNum(),
                    "unexpected " + tag(e) + " inside " + tag(parent) + "; expected " + expected);
    }

    bool parseFeature(const XMLElement* root) {
        if (strcmp(root->Name(), kRoot) != 0) {
            return fail(root->GetLineNum(), "the top-level element is " + tag(root) +
                                                    "; a feature configuration starts with "
                                                    "<Feature name=\"...\">");
        }
        if (!onlyAttributes(root, {"name"})) return false;
        if (!required(root, "name", &mOut->info.featureName)) return false;
        if (mOut->info.featureName.empty()) {
            return fail(root->GetLineNum(), "<Feature> has an empty name");
        }
        mOut->featureLine = root->GetLineNum();

        int configsLine = 0;
        int profilesLine = 0;
        int appListLine = 0;
        return children(root, [&](const XMLElement* e) {
            const char* name = e->Name();
            if (strcmp(name, kConfigs) == 0) {
                return once(e, &configsLine) && parseConfigs(e);
            }
            if (strcmp(name, kProfiles) == 0) {
                return once(e, &profilesLine) && parseProfiles(e);
            }
            if (strcmp(name, kAppList) == 0) {
                return once(e, &appListLine) && parseAppList(e);
            }
            return unexpected(e, root, "<Configs>, <Profiles> or <AppList>");
        });
    }

    // Each section appears at most once; `line` remembers the first.
    bool once(const XMLElement* e, int* line) {
        if (*line != 0) {
            return fail(e->GetLineNum(), "a second " + tag(e) + " section; the first is on line " +
                                                 std::to_string(*line));
        }
        *line = e->GetLineNum();
        return onlyAttributes(e, {});
    }

    bool parseConfigs(const XMLElement* section) {
        return children(section, [&](const XMLElement* e) {
            if (strcmp(e->Name(), kConfig) != 0) return unexpected(e, section, "<Config>");
            if (!onlyAttributes(e, {"name", "value"})) return false;
            std::string name;
            std::string value;
            if (!required(e, "name", &name) || !required(e, "value", &value)) return false;
            if (name.empty()) return fail(e->GetLineNum(), "<Config> has an empty name");
            if (e->FirstChildElement() != nullptr || !isBlank(e->GetText() ? e->GetText() : "")) {
                return fail(e->GetLineNum(), "<Config name=\"" + name +
                                                     "\"> takes its value in value=\"...\" and "
                                                     "has no content");
            }
            auto [it, inserted] = mOut->configLines.emplace(name, e->GetLineNum());
            if (!inserted) {
                return fail(e->GetLineNum(), "config \"" + name +
                                                     "\" is set twice; the first is on line " +
                                                     std::to_string(it->second));
            }
            mOut->info.configs[name] = value;
            return true;
        });
    }

    bool parseProfiles(const XMLElement* section) {
        return children(section, [&](const XMLElement* e) {
            if (strcmp(e->Name(), kProfile) != 0) return unexpected(e, section, "<Profile>");
            if (!onlyAttributes(e, {"name"})) return false;
            std::string name;
            if (!required(e, "name", &name)) return false;
            if (name.empty()) return fail(e->GetLineNum(), "<Profile> has an empty name");
            auto [it, inserted] = mOut->profileLines.emplace(name, e->GetLineNum());
            if (!inserted) {
                return fail(e->GetLineNum(), "profile \"" + name +
                                                     "\" is defined twice; the first is on line " +
                                                     std::to_string(it->second));
            }
            std::vector<std::vector<int>>& lists = mOut->info.profiles[name];
            return children(e, [&](const XMLElement* lock) {
                if (strcmp(lock->Name(), kPerfLock) != 0) return unexpected(lock, e, "<PerfLock>");
                if (!onlyAttributes(lock, {})) return false;
                lists.emplace_back();
                return parsePerfLock(lock, name, &lists.back());
            });
        });
    }

    // The numbers of a <PerfLock> may be split by comments; each text piece is read in turn.
    bool parsePerfLock(const XMLElement* lock, const std::string& profile, std::vector<int>* out) {
        for (const XMLNode* node = lock->FirstChild(); node != nullptr;
             node = node->NextSibling()) {
            if (const XMLElement* element = node->ToElement()) {
                return fail(element->GetLineNum(),
                            "unexpected " + tag(element) + " inside <PerfLock>; it holds numbers");
            }
            const XMLText* text = node->ToText();
            if (text == nullptr) continue;
            std::vector<int> numbers;
            std::string what;
            size_t offset = 0;
            const std::string_view value(text->Value());
            if (!FeatureConfigXml::parseIntList(value, &numbers, &what, &offset)) {
                return fail(lineOf(text, offset), "profile \"" + profile + "\": " + what);
            }
            out->insert(out->end(), numbers.begin(), numbers.end());
        }
        return true;
    }

    bool parseAppList(const XMLElement* section) {
        return children(section, [&](const XMLElement* e) {
            if (strcmp(e->Name(), kApp) != 0) return unexpected(e, section, "<App>");
            if (!onlyAttributes(e, {})) return false;
            if (e->FirstChildElement() != nullptr) {
                return fail(e->GetLineNum(), "<App> holds one application name and no elements");
            }
            const std::string app =
                    android::base::Trim(e->GetText() != nullptr ? e->GetText() : "");
            if (app.empty()) return fail(e->GetLineNum(), "<App> is empty");
            mOut->info.appList.push_back(app);
            return true;
        });
    }

    const std::string& mFile;
    FeatureConfig* mOut;
    std::string* mError;
};

// One number of a perf-lock list: decimal int or 0x hex of up to 32 bits (taken as the int with
// the same bits, as opcodes such as 0x80000000 are).
bool parseNumber(std::string_view token, int* out, std::string* error) {
    const std::string text(token);
    const std::string quoted = "\"" + text + "\"";
    const char* const notANumber = " is not a number (decimal, or hex such as 0x40C00000)";
    if (android::base::StartsWithIgnoreCase(text, "0x")) {
        uint32_t value = 0;
        if (android::base::ParseUint(text, &value)) {
            *out = static_cast<int>(value);
            return true;
        }
        *error = quoted + (errno == ERANGE ? " does not fit in 32 bits" : notANumber);
        return false;
    }
    if (!android::base::ParseInt(text, out)) {
        *error = quoted + (errno == ERANGE ? " is out of the int range" : notANumber);
        return false;
    }
    return true;
}

}  // namespace

std::string FeatureConfig::whereConfig(const std::string& key) const {
    auto it = configLines.find(key);
    return it == configLines.end() ? file : file + ":" + std::to_string(it->second);
}

std::string FeatureConfig::whereProfile(const std::string& name) const {
    auto it = profileLines.find(name);
    return it == profileLines.end() ? file : file + ":" + std::to_string(it->second);
}

bool FeatureConfigXml::parseIntList(std::string_view text, std::vector<int>* out,
                                    std::string* error, size_t* badOffset) {
    out->clear();
    bool commaAllowed = false;  // a comma must follow a number
    size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (isSpace(c)) {
            ++i;
        } else if (c == ',') {
            if (!commaAllowed) {
                *error = "a comma with no number before it";
                if (badOffset != nullptr) *badOffset = i;
                return false;
            }
            commaAllowed = false;
            ++i;
        } else {
            size_t end = i;
            while (end < text.size() && !isSpace(text[end]) && text[end] != ',') ++end;
            int value = 0;
            if (!parseNumber(text.substr(i, end - i), &value, error)) {
                if (badOffset != nullptr) *badOffset = i;
                return false;
            }
            out->push_back(value);
            commaAllowed = true;
            i = end;
        }
    }
    return true;
}

bool FeatureConfigXml::parseFile(const std::string& path, FeatureConfig* out, std::string* error) {
    std::string content;
    if (!readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

bool FeatureConfigXml::parseText(std::string_view text, const std::string& name, FeatureConfig* out,
                                 std::string* error) {
    *out = FeatureConfig{};
    out->file = name;
    return checkNoNul(text, name, error) && Parser(name, out, error).parse(text);
}

}  // namespace pwr::tools
