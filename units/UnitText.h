#pragma once

#include <string>
#include <string_view>

namespace vxsched {

// Texts as the files of units have them.

// A value that is not split into words, such as a path or a description: without line ends.
std::string UnitValue(std::string_view value);

// A word of Environment=: quoted.
std::string UnitWord(std::string_view word);

// An argument of ExecStart=: quoted, and no variable is put into it.
std::string UnitArgument(std::string_view argument);

// A name for a unit, different for each task, without a suffix. Empty if it would be too long for one.
std::string UnitName(std::string_view task);

}  // namespace vxsched
