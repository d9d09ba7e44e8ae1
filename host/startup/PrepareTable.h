#pragma once

#include <optional>
#include <vector>

#include <vxsched/Table.h>
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "host/recovery/Uptime.h"
#include "runs/RunRecord.h"

// The table as it should be before the add-in loads it, and what to report about the changes.
struct TPrepared {
    std::vector<vxsched::TTaskEntry> tasks;
    std::vector<TRunRecord> notLaunched;    // missed or unknown: rescheduled, or removed
    std::vector<vxsched::TTaskEntry> late;  // due while the previous host was up: to be launched
    std::vector<vxsched::TTaskEntry> caughtUp;  // missed, and to be launched all the same
};

// Decides about the active tasks that are due at `now`:
// - A task that was launched is rescheduled; `records` are of launches that the table does not
//   show.
// - A task that is in `intents`, those of a former boot, was launched or not: the power failed before
//   its launch record was on the disk. It is rescheduled or removed as a missed one is.
// - A task that came due during `previous`, the uptime of the previous host, stays due.
// - Any other was missed: it is rescheduled on its grid, or removed if it runs once, as the
//   add-in's load would do.
// What was missed is counted by the calendar of a task that has one. The last time that was missed stays
// due if the task's job asks for that (TJob::catchUp). A job that is over (TJob::until) is removed.
// A task that is launched at startups of the machine, and was not since `booted`, is due.
// Paused tasks stay as they are.
TPrepared PrepareTable(std::vector<vxsched::TTaskEntry> tasks,
                       const std::vector<TLaunchRecord>& records,
                       const std::vector<TLaunchIntent>& intents,
                       const std::optional<TUptime>& previous, vxsched::TTime now,
                       vxsched::TTime booted);

// Returns when the uptime of this host begins: with the earliest due time that it took over, else
// now. If this host is killed too, the next one takes over the same tasks.
vxsched::TTime BeginningOfUptime(const TPrepared& prepared, vxsched::TTime now);
