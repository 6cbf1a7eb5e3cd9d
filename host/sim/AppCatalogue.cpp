#include "host/sim/AppCatalogue.h"

#include <errno.h>

#include <cstring>

#include <android-base/file.h>
#include <android-base/strings.h>

#include "host/sim/Scenario.h"
#include "host/tools/InputFile.h"

namespace pwr::sim {

bool AppCatalogue::parseText(std::string_view text, const std::string& name, AppCatalogue* out,
                             std::string* error) {
    *out = AppCatalogue{};
    out->file = name;
    const std::vector<std::string> lines = android::base::Split(std::string(text), "\n");
    for (size_t i = 0; i < lines.size(); ++i) {
        const int line = static_cast<int>(i) + 1;
        const std::string where = name + ":" + std::to_string(line) + ": ";
        std::string content = lines[i].substr(0, lines[i].find('#'));
        std::vector<std::string> words;
        for (const std::string& word : android::base::Split(content, " \t\r")) {
            if (!word.empty()) words.push_back(word);
        }
        if (words.empty()) continue;
        if (words.size() != 2) {
            *error = where +
                     "expected a package and its type (game, browser, video, other or a "
                     "number), not \"" +
                     android::base::Trim(content) + "\"";
            return false;
        }
        int type = 0;
        if (!appTypeFromWord(words[1], &type)) {
            *error = where + "\"" + words[1] +
                     "\" is not an application type; expected game, browser, video, other or a "
                     "number";
            return false;
        }
        auto [it, added] = out->lines.emplace(words[0], line);
        if (!added) {
            *error = where + words[0] + " is listed twice; the first is on line " +
                     std::to_string(it->second);
            return false;
        }
        out->types[words[0]] = type;
    }
    return true;
}

bool AppCatalogue::parseFile(const std::string& path, AppCatalogue* out, std::string* error) {
    std::string content;
    if (!tools::readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

}  // namespace pwr::sim
