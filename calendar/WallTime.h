#pragma once

#include <date/date.h>

#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Conversion between times and the wall clock of the local zone, daylight saving included. The
// local zone is TZ's, or else the system's, as it was at the process's first use or last tzset().
// Any thread may call these functions, but not while another changes TZ.

// A date and a time of day as a wall clock shows them, in no particular zone.
using TWallTime = date::local_seconds;

// What a wall clock in the local zone shows at `time`. UTC for a time whose year exceeds the range
// of int.
TWallTime LocalWallTimeAt(TTime time);

// The times, in ascending order, at which a wall clock in the local zone shows `wall`: usually one;
// none if the clock is put forward past it, two if the clock is put back past it.
std::vector<TTime> TimesShowing(TWallTime wall);

}  // namespace vxsched
