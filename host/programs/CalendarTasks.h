// Tasks with a calendar, in the tick that finds them due. The add-in knows periods only; it leaves a due
// time in the future alone, and its tick saves it, so that the host sets it where the add-in launches.

#pragma once

#include <optional>

#include <vxsched/Table.h>
#include "store/CSchedule.h"

class TTask;

// To be called at each tick, and at any other time by any thread. Finds out from the clocks whether the
// machine slept since the former call, or its clock was set forward, by more than a minute.
void NoteClock();

// Whether a due task is to be launched; true for one without a calendar. If not, the reason is logged:
// the calendar has no such time, or cannot be read, or it passed while the machine slept and the job is
// not to catch up.
bool IsToBeLaunched(const vxsched::TTaskEntry& task, const vxsched::CSchedule& schedule);

// Sets the due time of a task with a calendar that was due, and logs and records the launch times that
// passed meanwhile. `isLaunched`: the first of them was launched. Has the add-in remove a task whose job
// is over, as it removes one that runs once. `schedule` is that of the task before. Returns the due
// time that it has set; empty if the add-in is to set it. For the worker, during the launch.
std::optional<vxsched::TTime> Reschedule(TTask& task, const vxsched::CSchedule& schedule,
                                         bool isLaunched);
