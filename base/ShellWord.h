#pragma once

#include <string>
#include <string_view>

namespace vxsched {

// `string` as one word of a command that a person copies from a message into a shell: as it is if no
// shell would change it, else in single quotes.
std::string ShellWord(std::string_view string);

}  // namespace vxsched
