#pragma once

#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace vxsched {

// A text from the command line that could not be read. what() is the whole message for a person,
// without a line end: the reason, the text again, and a caret under the place:
//
//     cannot read the time "2026-02-30 14:30": there is no such day
//         2026-02-30 14:30
//         ^
//
// Control characters and bytes that are not UTF-8 are shown as U+FFFD, so that the message is text
// whatever was typed.
class CParseError : public std::runtime_error {
public:
    // `kind` is what the text was to be ("time"); `offset` the byte of `text` that the caret goes
    // under, the size of `text` where something is missing at its end.
    CParseError(std::string_view kind, std::string_view text, std::size_t offset,
                std::string_view reason);

    // The place of the error: a byte of the text, or its size.
    std::size_t Offset() const { return place; }

private:
    std::size_t place;
};

}  // namespace vxsched
