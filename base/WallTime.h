#pragma once

#include <date/date.h>

#include <chrono>
#include <vector>

namespace vxsched {

// Conversion between times and the wall clock of the local zone, daylight saving included. As for
// base/IsoTime.h, any thread may call these functions, but not while another changes TZ.

// A date and a time of day as a wall clock shows them, in no particular zone.
using TWallTime = date::local_seconds;

// What a wall clock in the local zone shows at `time`. UTC for a time whose year exceeds the range
// of int.
TWallTime LocalWallTimeAt(std::chrono::sys_seconds time);

// The times, in ascending order, at which a wall clock in the local zone shows `wall`: usually one;
// none if the clock is set forward past it, two if the clock is set back past it.
std::vector<std::chrono::sys_seconds> TimesShowing(TWallTime wall);

}  // namespace vxsched
