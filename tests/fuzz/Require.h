#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "base/DisplayText.h"

// What the fuzz targets check.

// Ends the process with a message unless the condition holds: libFuzzer then keeps the input.
inline void Require(bool condition, const char* failure) {
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", failure);
    std::abort();
}

// Requires lines that a person may read on a terminal: no control characters, all of it UTF-8.
inline void RequireShown(std::string_view lines) {
    for (std::size_t begin = 0, end = 0; begin < lines.size(); begin = end + 1) {
        end = std::min(lines.find('\n', begin), lines.size());
        const std::string_view line = lines.substr(begin, end - begin);
        Require(vxsched::Show(line).string == line, "a line has control characters");
    }
}
