#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "jobs/Job.h"

// A job with a calendar as the program of a host that does not know of calendars. Such a host launches it
// for the due time that the table has, or each hour, the period that the table has.

// Whether this process was launched so: neither vxschedd nor vxsched has told it a task or a due time, and
// no person has given it several arguments.
bool IsForeignLaunch(const vxsched::TJob& job, std::size_t arguments);

struct TForeignLaunch {
    std::string task;  // its name; empty if the table has no task of that line
    // The launch time of the calendar for which the job is to be executed; none if none has passed since
    // the task's former launch.
    std::optional<std::chrono::sys_seconds> due;
};

// By the table, which it reads without a lock: its launcher's tick holds that. `line` is the job's.
TForeignLaunch FindForeignLaunch(const vxsched::TJob& job, const std::string& line);

// Has vxsched set the task's next due time by the calendar, in a process that this one does not wait for:
// that waits for the end of the tick. Without it the task is launched each hour, and nothing is lost.
void RearmTask(const std::string& task, const std::string& cron);
