#pragma once

#include <string>

namespace vxsched {

// The name of a file that stands for standard input.
inline constexpr char cStandardInput[] = "-";

// Reads what is to be imported: a file, a pipe or a terminal, to its end. Throws CError (cRefused), without
// the file's name, if it cannot be read, is empty, or is larger than any export.
std::string ReadInput(const std::string& file);

}  // namespace vxsched
