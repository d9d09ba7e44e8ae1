#pragma once

#include <string>

#include <vxsched/Table.h>
#include "jobs/Job.h"

namespace vxsched {

// Whether the add-in would launch another program for that absolute path, or none: it cuts off the end
// of some, and an extension aborts the scheduling process.
bool NeedsRunner(const std::string& program);

// Has a task, which has its name, execute a job: its program is the runner of this installation, with
// the line of the job as its parameter. Throws CError (cFailed) if the runner is missing.
void GiveToRunner(TTaskEntry& task, TJob job);

}  // namespace vxsched
