#pragma once

#include <map>
#include <string>
#include <string_view>

namespace pwr::sim {

// The application types a user assigns to packages for an import: what the classifier of the
// simulated phone answers. A text file, one package a line:
//
//   # package            type
//   com.example.game     game       (game, browser, video, other, or a number)
//
// '#' starts a comment; blank lines are skipped.
struct AppCatalogue {
    std::string file;
    std::map<std::string, int> types;  // package -> type
    std::map<std::string, int> lines;  // package -> line

    // False, with `error` set to "<file>:<line>: <what is wrong>", when the text is not a
    // catalogue; nothing throws.
    static bool parseText(std::string_view text, const std::string& name, AppCatalogue* out,
                          std::string* error);
    static bool parseFile(const std::string& path, AppCatalogue* out, std::string* error);
};

}  // namespace pwr::sim
