// Reads a cron expression as Debian's cron does.

#pragma once

#include <string_view>

#include "calendar/CCronExpression.h"

namespace vxsched {

// Parses five fields, minute, hour, day of the month, month and day of the week, or one of @hourly,
// @daily, @midnight, @weekly, @monthly, @yearly, @annually and @reboot. A field is a list of
// numbers, names of three letters, ranges, and * , the latter two also with a step: 0-30/10.
// Besides what cron has, L is the last day of the month. Capitals make no difference.
//
// Throws CCalendarError; CNeverComes, which is one, for what never comes, and for what cron accepts without ever making a
// launch of it: 5-1.
CCronExpression ParseCron(std::string_view text);

}  // namespace vxsched
