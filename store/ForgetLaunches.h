#pragma once

#include <string>

#include <vxsched/Table.h>

namespace vxsched {

// Removes the launch records that a host has in the working directory for this due time of a task,
// for a change that is about to make the task due at it: the host launches the task again. Without
// the records that it has kept it cannot take the change for a save of a table from before the
// launch. The caller holds the store mutex, no tick is under way, and in the table the task has
// another due time, or is not there: so the table shows the launch, and no record is needed for that
// any more. Blocks for disk access only; a record that cannot be removed stays.
void ForgetLaunches(const std::string& task, TTime due);

}  // namespace vxsched
