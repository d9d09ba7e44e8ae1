#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "calendar/CCronExpression.h"
#include "calendar/CTimeZone.h"

namespace vxsched {

// Expressions for OnCalendar= of a timer, which together elapse when a cron expression has a launch, on days
// on which the clock is not changed. Empty `zone`: the machine's. Not for @reboot.
std::vector<std::string> UnitCalendar(const CCronExpression& expression, const std::string& zone);

// Whether timers elapse at other times than the launches because of a change of the clock between the two times:
// they do not elapse for what the clock skips, nor while it shows the same times again.
bool DiffersAtChange(const CCronExpression& expression, const CTimeZone& zone,
                     std::chrono::sys_seconds from, std::chrono::sys_seconds to);

}  // namespace vxsched
