#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

// `string` as one word of a command that a person copies from a message into a shell: as it is if no
// shell would change it, else in single quotes.
std::string ShellWord(std::string_view string);

// The words of a command as one line.
std::string JoinWords(const std::vector<std::string>& words);

}  // namespace vxsched
