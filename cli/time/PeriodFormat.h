// Periods: parses what a person types, formats what a person reads.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/CParseError.h"

namespace vxsched {

// Parses a period and returns its hours: `6h`, `1d`, `2w`, `1d12h`, `2 weeks`; 0 for `once`. Throws
// CParseError: for a number without a unit, for minutes and seconds, for a zero duration, and for
// more than 1193046 hours, because such a step would exceed 32 bits of seconds.
std::uint32_t ParsePeriod(std::string_view argument);

// Formats a period with the largest unit that divides it: `25h`, `1d`, `2w`; `once` for 0.
// ParsePeriod reads it back unless it is longer than ParsePeriod accepts.
std::string FormatPeriod(std::uint32_t hours);

}  // namespace vxsched
