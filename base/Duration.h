// Durations as a person types them: the part that times and periods have in common.

#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/CParser.h"

namespace vxsched {

// Reads a duration such as `90m`, `1d12h` or `2 weeks`: integers with units, from the largest unit
// to the smallest, each at most once. A day is 24 hours, a week seven days. A number above 10^12
// counts as 10^12, so that the sum cannot overflow.
//
// Throws CParseError; for a unit below `smallest` with the reason `tooSmall`.
std::chrono::seconds ReadDuration(CParser& reader, std::chrono::seconds smallest,
                                  std::string_view tooSmall);

// A positive duration as ReadDuration() reads it, without blanks: `2h30m`.
std::string FormatDuration(std::chrono::seconds duration);

}  // namespace vxsched
