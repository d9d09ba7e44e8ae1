// Strings made safe for a terminal. Any thread may call these functions.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxsched {

struct TShown {
    std::string string;       // safe to print
    std::size_t columns = 0;  // each character counts as one column
};

// Replaces each control character, line ends and bidirectional controls included, and each byte that
// is not UTF-8 by U+FFFD: no string can send control sequences to the terminal, forge a line, or have
// a line shown in another order.
TShown Show(std::string_view string);

// Like Show(), but appends the result to `to`. Returns the columns that were added.
std::size_t AppendShown(std::string_view string, std::string& to);

}  // namespace vxsched
