#pragma once

#include <vxsched/Table.h>
#include "store/CSchedule.h"

namespace vxsched {

// The due times that a change sets. None of these functions blocks for longer than disk access: the
// file of a calendar's zone.

// The schedule of a task. Throws CError (cRefused) if its calendar cannot be used.
CSchedule RequireSchedule(const TTaskEntry& task);

// Throws CError (cRefused) if the job of the task is over before its due time.
void RequireLaunch(const TTaskEntry& task, const CSchedule& schedule);

// Sets due time and period of a task with a calendar: the first launch after now. Throws CError
// (cRefused) if there is none.
void ScheduleByCalendar(TTaskEntry& task, const CSchedule& schedule);

// Moves a due time before `now` along the grid, as the add-in does. A step of zero has no grid, and a
// task that runs once none either: the due time stays.
void MoveToGrid(TTaskEntry& task, TTime now);

}  // namespace vxsched
