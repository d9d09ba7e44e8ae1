#pragma once

#include <vector>

#include "client/Table.h"
#include "host/RunRecord.h"

// What a load of the add-in at `now` does to a table: each task that was due while no host ran, with
// what becomes of it, in the order of the table. Missed is a task whose start lies in the past, or is
// right now for one that runs once: it is moved on, or removed. Paused tasks would not have run, so of
// these only the removed ones are told.
std::vector<TRunRecord> FindMissed(const std::vector<vxsched::TTaskEntry>& tasks,
                                   vxsched::TTime now);

// Those that FindMissed() of `tasks` says at `later` and did not say at `now`, and that are indeed not
// in `tasksAfterLoad` as they were: the load took place somewhere between the two times.
std::vector<TRunRecord> FindMissedMeanwhile(const std::vector<vxsched::TTaskEntry>& tasks,
                                            vxsched::TTime now, vxsched::TTime later,
                                            const std::vector<vxsched::TTaskEntry>& tasksAfterLoad);
