#pragma once

#include "cli/commands/Commands.h"

namespace vxsched {

// The arguments of `create` or `edit` with one form of a calendar, the option cron, in place of all
// others: daily, weekly, monthly, and a period below an hour; and with the time of until as a job has
// it. Throws CUsageError, also for two calendars and for a calendar beside --at or --every.
TTaskArguments ByCron(TTaskArguments arguments);

}  // namespace vxsched
