// Times that have passed, as a person types them.

#pragma once

#include <string_view>

#include <vxsched/Table.h>
#include "base/CParseError.h"

namespace vxsched {

// Parses a time from which on something is listed, relative to the current time `now`. Throws
// CParseError.
//
//   2026-11-21 14:30     as ParseTime() reads it, and so are now, noon, midnight and @1795267800
//   14:30                the last time at or before `now` when a local clock showed this
//   yesterday 14:30      or today, by the local calendar; each alone is its midnight
//   friday 14:30         or fri: the last time at or before `now` on a day of this name; friday alone
//                        is the last midnight with which such a day began
//   3h ago, 1d12h ago    before `now`, with the units of ParseTime()
//
// Of a time of day that existed twice because the clock was set back, the second is taken once it
// is past. One that the clock has skipped, without a date, is that of the day before.
TTime ParsePastTime(std::string_view argument, TTime now);

}  // namespace vxsched
