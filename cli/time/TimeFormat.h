// Times and distances of time: parses what a person types, formats what a person reads.

#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <vxsched/Table.h>
#include "base/CParseError.h"
#include "base/IsoTime.h"

namespace vxsched {

// Parses a time relative to the current time `now`. Throws CParseError.
//
//   2026-11-21 14:30   in local time, or in the zone that follows: Z, +01:00, +0100 or +01. Seconds
//                      are optional, as in 14:30:15; T may replace the blank
//   2026-11-21         midnight, local time
//   14:30              the next time at or after `now` when a local clock shows this
//   today 14:30        or tomorrow, by the local calendar; tomorrow alone is its midnight
//   friday 14:30       or fri: the next time at or after `now` on a day of this name; friday alone is
//                      the next midnight with which such a day begins
//   noon, midnight     12:00 and 00:00, alone or wherever a time of day is
//   now
//   in 3h, +1d12h      from `now`, with s, m or min, h, d, w or English words; a day is 24 hours
//   @1795267800        seconds since 1970, as FormatTime writes times outside the years 1 to 9999
//
// A local time that does not exist because the clock is set forward is refused. Of one that exists
// twice because the clock is set back, the first is taken; a time of day without a date gives the
// second once the first is past. Words may be upper or lower case.
TTime ParseTime(std::string_view argument, TTime now);

// Formats a time to the second, without its zone: 2026-11-21 14:30:00. Outside the years 1 to 9999
// it is @ and the seconds since 1970. ParseTime reads a local time back; of a time that exists
// twice it reads back the first.
std::string FormatTime(TTime time, EZone zone);

// Formats a time in UTC as in ISO 8601: 2026-11-21T13:30:00Z. Outside the years 1 to 9999, for
// which ISO 8601 has no form, it is @ and the seconds since 1970.
std::string FormatIsoTime(TTime time);

// The time from one time to another, negative if it is later; the largest that there is where that
// would be out of range. A table may have any times.
std::chrono::seconds Between(TTime from, TTime to);

// Formats a duration in its two largest units, rounded towards zero: 5d 2h, 3h 12min, 45s.
// Zero becomes `now`, a negative one `3h 12min ago`.
std::string FormatDistance(std::chrono::seconds distance);

}  // namespace vxsched
