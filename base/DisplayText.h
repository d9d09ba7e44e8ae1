#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxsched {

// A string made safe for a terminal.
struct TShown {
    std::string text;
    std::size_t columns = 0;  // each character counts as one column
};

// Replaces each control character and each byte that is not UTF-8 by U+FFFD, so that no string can
// send control sequences to the terminal.
TShown Show(std::string_view text);

// Like Show(), but appends the result to `to`. Returns the columns that were added.
std::size_t AppendShown(std::string_view text, std::string& to);

}  // namespace vxsched
