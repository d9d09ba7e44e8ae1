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

// Replaces by U+FFFD each byte that is not UTF-8, and each character that acts on others or that nobody
// can see: control characters and line ends, bidirectional controls, line and paragraph separators,
// fillers and the other invisible format characters. So no string can send control sequences to the
// terminal, forge a line, have a line shown in another order, or hide a part of itself. Letters of
// every script stay, and so do U+200C, U+200D and the variation selectors of emoji: see
// DisplayText.cpp.
TShown Show(std::string_view string);

// The first `most` bytes by Show(), and "..." if there are more: for a message that stays short.
std::string ShowBeginning(std::string_view string, std::size_t most = 60);

// Like Show(), but appends the result to `to`. Returns the columns that were added.
std::size_t AppendShown(std::string_view string, std::string& to);

bool IsUtf8(std::string_view bytes);

// How a character beyond U+FFFF is escaped.
enum class EEscape { cJson, cToml };

// JSON with an escape (\u009b) for each character in its strings that Show() would replace. JSON itself
// demands that only for the characters below the blank. `json` is valid UTF-8, and ASCII outside of
// its strings. With cToml the strings of the result are TOML's.
std::string EscapeControls(std::string_view json, EEscape how = EEscape::cJson);

}  // namespace vxsched
