#pragma once

#include <vector>

#include "client/Table.h"
#include "host/RunRecord.h"
#include "host/StartMarks.h"

// What a table should be before the add-in works on it, and what has to be told of that.
struct TPrepared {
    std::vector<vxsched::TTaskEntry> tasks;
    std::vector<TRunRecord> missed;         // due while no host ran: moved on, or removed unrun
    std::vector<vxsched::TTaskEntry> late;  // due while the former host ran: still to be started
};

// `marks` are of starts that the table does not show; `lastWatch` is until when the former host looked
// after tasks, the beginning of 1970: never. Of the active tasks that are due at `now`, those that were
// started are moved on, those that came due in the last minutes up to lastWatch stay due, and the
// others were missed: they are moved on to their grid, or removed when they run once, just as a load
// would do. Paused tasks stay as they are.
TPrepared PrepareTable(std::vector<vxsched::TTaskEntry> tasks, const std::vector<TStartMark>& marks,
                       vxsched::TTime lastWatch, vxsched::TTime now);
