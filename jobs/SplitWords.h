#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

// Splits a text into words as a shell does, by its quotes and backslashes. Nothing is expanded: `$`,
// `*`, `~`, `|` and all other characters stand for themselves. ShellWord() is its inverse for a word.
// Throws CJobError for a quote that is not closed and a backslash at the end.
std::vector<std::string> SplitWords(std::string_view text);

}  // namespace vxsched
