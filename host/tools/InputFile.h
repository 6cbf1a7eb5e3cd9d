#pragma once

#include <string>

namespace pwr::tools {

// The name that stands for standard input wherever a tool reads a file.
inline constexpr char kStandardInput[] = "-";

// Reads a tool's input file whole: "-" is standard input, and a symbolic link is followed (a
// tool's inputs are the user's files, unlike the device nodes the plug-in reads). False with
// `error` set to "<path>: cannot read: <reason>".
bool readInputFile(const std::string& path, std::string* content, std::string* error);

}  // namespace pwr::tools
