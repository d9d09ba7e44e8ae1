#pragma once

#include <date/date.h>

#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// A day and a time of day as a clock on the wall shows them, in no particular zone.
using TWallTime = date::local_seconds;

// What a clock in the local zone shows at that time. The local zone is the one of the environment
// variable TZ, or else the system's, as it was when the process first asked or last called tzset().
TWallTime LocalWallTimeAt(TTime time);

// The times at which a clock in the local zone shows this, in their order: mostly one; none when the
// clock is put forward over it; two when the clock is put back over it.
std::vector<TTime> TimesShowing(TWallTime wall);

}  // namespace vxsched
