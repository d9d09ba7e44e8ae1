#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "cli/time/CParseError.h"

namespace vxsched {

// Reads a repeat period and returns its hours: `6h`, `1d`, `2w`, `1d12h`, `2 weeks`; 0 for `once`.
// Throws CParseError: for a number without a unit, for minutes and seconds, for no time at all, and
// for more than 1193046 hours, which the scheduler cannot step by.
std::uint32_t ParsePeriod(std::string_view text);

// Writes a period with the largest unit that divides it: `25h`, `1d`, `2w`; `once` for 0. What it
// writes for a period that ParsePeriod can return, ParsePeriod reads back.
std::string FormatPeriod(std::uint32_t hours);

}  // namespace vxsched
