#pragma once

#include <cstddef>
#include <string>

namespace vxsched {

// The name of a file that stands for standard input.
inline constexpr char cStandardInput[] = "-";

// More than any export has: a table of a million tasks. The parsed input needs many times its bytes.
inline constexpr std::size_t cMostInput = std::size_t{256} << 20;

// Reads what is to be imported: a file, a pipe or a terminal, to its end. Throws CError (cRefused), without
// the file's name, if it cannot be read, is empty, or has more than `most` bytes.
std::string ReadInput(const std::string& file, std::size_t most = cMostInput);

}  // namespace vxsched
