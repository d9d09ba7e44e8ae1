#pragma once

#include <chrono>
#include <string_view>

#include "cli/time/CParser.h"

namespace vxsched {

// Reads a length of time such as `90m`, `1d12h` or `2 weeks`: whole numbers with their units, from
// the largest unit to the smallest, each at most once. A day is 24 hours, a week seven days. A
// number beyond 10^12 counts as 10^12, which is longer than anything that has a use.
//
// Units below `smallest` are refused with the reason `tooSmall`. Throws CTextError.
std::chrono::seconds ReadDuration(CParser& reader, std::chrono::seconds smallest,
                                  std::string_view tooSmall);

}  // namespace vxsched
