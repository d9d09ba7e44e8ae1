// Short forms for usual calendars, as expressions. Each throws CCalendarError.

#pragma once

#include <chrono>
#include <string_view>

#include "calendar/CCronExpression.h"

namespace vxsched {

// 02:30
CCronExpression EveryDay(std::string_view timeOfDay);

// mon,fri 08:30: days of the week as in an expression, and a time of day.
CCronExpression EveryWeek(std::string_view daysAndTime);

// 1,L 08:30: days of the month as in an expression, and a time of day.
CCronExpression EveryMonth(std::string_view daysAndTime);

// */15 for 15 minutes: less than an hour, of which it is a whole part.
CCronExpression EveryPartOfHour(std::chrono::minutes period);

}  // namespace vxsched
