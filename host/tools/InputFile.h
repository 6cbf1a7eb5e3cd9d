#pragma once

#include <string>
#include <string_view>

namespace pwr::tools {

// The name that stands for standard input wherever a tool reads a file.
inline constexpr char kStandardInput[] = "-";

// Reads a tool's input file whole: "-" is standard input, and a symbolic link is followed (a
// tool's inputs are the user's files, unlike the device nodes the plug-in reads). False with
// `error` set to "<path>: cannot read: <reason>".
bool readInputFile(const std::string& path, std::string* content, std::string* error);

// For a text format: false with `error` set to "<name>:<line>: holds a NUL character ..." when
// `text` holds one, which a reader of C strings would take as its end and silently cut there.
bool checkNoNul(std::string_view text, const std::string& name, std::string* error);

}  // namespace pwr::tools
