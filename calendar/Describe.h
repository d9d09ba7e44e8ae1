// A cron expression in words.

#pragma once

#include <string>

#include "calendar/CCronExpression.h"

namespace vxsched {

// Plain English: "at 02:30 on Monday to Friday", "every 15 minutes".
std::string Describe(const CCronExpression& expression);

}  // namespace vxsched
