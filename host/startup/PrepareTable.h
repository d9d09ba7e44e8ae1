#pragma once

#include <optional>
#include <vector>

#include <vxsched/Table.h>
#include "host/recovery/LaunchRecords.h"
#include "host/recovery/Uptime.h"
#include "runs/RunRecord.h"

// What a table should be before the add-in works on it, and what has to be told of that.
struct TPrepared {
    std::vector<vxsched::TTaskEntry> tasks;
    std::vector<TRunRecord> missed;         // due while no host ran: moved on, or removed unrun
    std::vector<vxsched::TTaskEntry> late;  // due while the former host ran: still to be started
};

// `marks` are of starts that the table does not show; `former` is the watch of the host before this one,
// if there was one. Of the active tasks that are due at `now`, those that were started are moved on,
// those that came due in that watch stay due, and the others were missed: they are moved on to their
// grid, or removed when they run once, just as a load would do. Paused tasks stay as they are.
TPrepared PrepareTable(std::vector<vxsched::TTaskEntry> tasks,
                       const std::vector<TLaunchRecord>& marks,
                       const std::optional<TUptime>& former, vxsched::TTime now);

// When the watch of this host begins, for one that comes after it: with the first of the tasks that it
// took over.
vxsched::TTime BeginningOfUptime(const TPrepared& prepared, vxsched::TTime now);
