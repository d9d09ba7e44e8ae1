// When an expression launches next, by the wall clock of a zone.

#pragma once

#include <chrono>
#include <optional>

#include "calendar/CCronExpression.h"
#include "calendar/CTimeZone.h"

namespace vxsched {

// The first launch after `after`, not at it. None for @reboot, from the year 9999 on, and of what
// the clock skips each year; a time before the year 1 counts as its beginning.
//
// What changes of the clock by less than three hours do, as cron(8) of Debian states it:
//   - A launch at a fixed time (CCronExpression::IsAtFixedTime) that the clock skips is made when
//     it is set forward, one for all that it skips; of a time that the clock shows twice, the first
//     is taken.
//   - Every other one is made whenever the clock shows its time.
// A larger change is a correction: what it skips is not made, what it repeats is made again.
std::optional<std::chrono::sys_seconds> NextLaunch(const CCronExpression& expression,
                                                   const CTimeZone& zone,
                                                   std::chrono::sys_seconds after);

}  // namespace vxsched
