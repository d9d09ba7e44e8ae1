#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/Table.h>

namespace vxsched {

// What is left of a damaged table.
struct TSalvaged {
    std::vector<TTaskEntry> tasks;   // every whole one, in their order
    std::vector<std::string> notes;  // what was passed over, with its offset
};

// Takes out of `bytes` every task that is whole. Behind a place that cannot be read it goes on at
// the next one that looks like a task: a name, times of this age, a program, a flag of 0 or 1.
VXSCHED_PUBLIC TSalvaged Salvage(std::string_view bytes);

// The tasks of a table. Throws CError (cDamaged) like DecodeTable(), and also for a table that can
// be read and has lost tasks all the same: zeros where a task was, or tasks behind the last.
VXSCHED_PUBLIC std::vector<TTaskEntry> DecodeIntactTable(std::string_view bytes, TTime now);

// A table to fill in what a damaged one has lost.
struct TBackup {
    std::string name;  // for people: "the copy from before the last change (..)"
    std::vector<TTaskEntry> tasks;
    std::filesystem::path file = {};
};

struct TRepair {
    std::vector<TTaskEntry> tasks;
    std::vector<std::string> notes;  // task by task what was kept, from where, or altered
};

// What a table should be after its repair: what can be read of `bytes` goes before what `source`
// says of the same name; the source fills in the rest; what would harm a process that loads it is
// put right as of `now`. A table that is sound and harmless comes back as it is, without notes.
VXSCHED_PUBLIC TRepair PlanRepair(std::string_view bytes, const TBackup* source, TTime now);

}  // namespace vxsched
