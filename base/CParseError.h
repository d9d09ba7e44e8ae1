// The error for a time or period that cannot be parsed.

#pragma once

#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace vxsched {

// A command-line argument that could not be parsed. what() is a message of three lines for a
// person, without a final line end: the reason, the argument again, and a caret under the offset:
//
//     cannot read the time "2026-02-30 14:30": there is no such day
//         2026-02-30 14:30
//         ^
//
// Control characters and bytes that are not UTF-8 are replaced by U+FFFD, so that the message is
// safe to print.
class CParseError : public std::runtime_error {
public:
    // `kind` is the kind of the value: "time". `errorOffset` is the byte of `argument` under which
    // the caret is printed; the size of `argument` if something is missing at its end.
    CParseError(std::string_view kind, std::string_view argument, std::size_t errorOffset,
                std::string_view reason);

    std::size_t Offset() const { return offset; }

private:
    std::size_t offset;
};

}  // namespace vxsched
