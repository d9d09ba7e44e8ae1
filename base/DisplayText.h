#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vxsched {

// What a text looks like on a terminal.
struct TShown {
    std::string text;
    std::size_t columns = 0;  // a character is taken for one column wide
};

// Control characters and bytes that are not UTF-8 are shown as U+FFFD, so that no text can steer the
// terminal.
TShown Show(std::string_view text);

// The same, behind what `to` holds. Returns the columns.
std::size_t AppendShown(std::string_view text, std::string& to);

}  // namespace vxsched
