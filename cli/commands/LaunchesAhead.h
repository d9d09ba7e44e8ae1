#pragma once

#include "cli/commands/Commands.h"

namespace vxsched {

// Prints what shows whether the schedule of a task that was created or edited is what was meant: the
// launches of a calendar after the next one, and that a grid of days will leave its time of day when the
// clock changes.
void PrintLaunchesAhead(const TCommon& common, const TTaskEntry& task, COutput& output);

}  // namespace vxsched
