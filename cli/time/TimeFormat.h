#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <vxsched/Table.h>
#include "cli/time/CParseError.h"

namespace vxsched {

// Reads a time. `now` is what the clock says, time(). Throws CTextError.
//
//   2026-11-21 14:30   seconds as :15 behind it, T in place of the blank; a zone behind it as Z,
//                      +01:00, +0100 or +01, otherwise it is local time
//   2026-11-21         midnight, local time
//   14:30              the next time at or after `now` that a local clock shows this
//   today 14:30        or tomorrow, by the local calendar
//   now
//   in 3h, +1d12h      from `now`, with s, m or min, h, d, w or the English words; a day is 24 hours
//   @1795267800        seconds since the beginning of 1970, as FormatTime writes far times
//
// A local time over which the clock is put forward is refused. One that comes twice, as the clock is
// put back, is the first of the two; a time of day alone may be the second, when the first is over.
// The words are read in either case.
TTime ParseTime(std::string_view text, TTime now);

enum class EZone { cLocal, cUtc };

// Writes a time to the second, without its zone: 2026-11-21 14:30:00. Outside the years 1 to 9999
// it is @ and the seconds since 1970. ParseTime reads it back when it was written in local time, to
// the same time but for the second of two times that are shown alike.
std::string FormatTime(TTime time, EZone zone);

// The same in the way of ISO 8601, in UTC: 2026-11-21T13:30:00Z. Outside the years 1 to 9999, which
// ISO 8601 cannot write either, it is @ and the seconds since 1970.
std::string FormatIsoTime(TTime time);

// Writes how far away something is in its two largest units, cut off behind them: 5d 2h, 3h 12min,
// 45s; `now` for 0. What is negative is written as 3h 12min ago.
std::string FormatDistance(std::chrono::seconds distance);

}  // namespace vxsched
