#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/Table.h>

// Repairing a damaged table. These functions work on bytes in memory: they read no file, take no
// lock, do not block, and any thread may call them. CStore::ReplaceAll() writes the result.
namespace vxsched {

// The readable tasks of a damaged table.
struct TSalvaged {
    std::vector<TTaskEntry> tasks;  // every complete one, in the order of the file
    // For each task whether it may be cut off or garbled, since it is not plausible.
    std::vector<bool> isDoubtful;
    std::vector<std::string> notes;  // the ranges of bytes that were skipped, for a person
};

// Takes every complete task out of `bytes`; the table's count is ignored. After bytes that cannot
// be read it searches for the next offset with a plausible task: a name of at most 4096 bytes,
// times from 1970 on, a program, a pause flag of 0 or 1. Never fails: noise gives no tasks. Takes
// time in proportion to the bytes.
VXSCHED_PUBLIC TSalvaged Salvage(std::string_view bytes);

// A valid table that supplies the tasks which a damaged one has lost.
struct TBackup {
    std::string name;  // for messages: "scheduler.dat.before"
    std::vector<TTaskEntry> tasks;
    std::filesystem::path file = {};  // where it was read from; empty if not from a file
};

// The table that a repair would write.
struct TRepair {
    std::vector<TTaskEntry> tasks;
    std::vector<std::string> notes;  // for a person: which task comes from where, or was altered;
                                     // empty if there is nothing to repair
};

// Plans the repair of the table `bytes`:
// 1. Every task that can be read is kept, in preference to the backup's task of the same name; but
//    the backup's is preferred to a doubtful one.
// 2. The backup supplies the tasks of other names. `backup` may be null and stays the caller's.
// 3. A task whose past due time would hang or slow down a process that loads the add-in at `now` is
//    rescheduled; one whose period is a step of zero gets the longest period and is paused. An
//    intact table whose tasks are safe to load comes back unchanged, without notes. Never fails.
VXSCHED_PUBLIC TRepair PlanRepair(std::string_view bytes, const TBackup* backup, TTime now);

}  // namespace vxsched
