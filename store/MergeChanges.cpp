#include "store/MergeChanges.h"

#include <unordered_map>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/CNamedTasks.h"

namespace vxsched {

namespace {

class CTasksByName {
public:
    explicit CTasksByName(const TTable& table) {
        for (const TTaskEntry& task : table.tasks)
            isUnique &= tasks.emplace(task.name, &task).second;
    }

    // Null if there is none.
    const TTaskEntry* Find(const std::string& name) const {
        const auto found = tasks.find(name);
        return found == tasks.end() ? nullptr : found->second;
    }

    bool IsUnique() const { return isUnique; }

private:
    std::unordered_map<std::string_view, const TTaskEntry*> tasks;
    bool isUnique = true;
};

TTaskEntry MergeFields(const TTaskEntry& base, const TTaskEntry& ours, TTaskEntry theirs) {
    const auto merge = [&](auto field) {
        if (theirs.*field == base.*field)
            theirs.*field = ours.*field;
    };
    merge(&TTaskEntry::next);
    merge(&TTaskEntry::last);
    merge(&TTaskEntry::period);
    merge(&TTaskEntry::program);
    merge(&TTaskEntry::parameter);
    merge(&TTaskEntry::paused);
    return theirs;
}

// Whether a task that one side has removed is gone, though it is in the other's table. A tick
// removes a task that runs once after its launch: if the other side has not given it another due
// time, it would be launched again.
bool IsGone(const TTaskEntry& base, const TTaskEntry& kept) {
    return base.period != 0 || kept.next == base.next;
}

std::vector<TTaskEntry> MergeTasks(const CTasksByName& base, const TTable& ours,
                                   const TTable& theirs) {
    const CTasksByName oursByName(ours);
    const CTasksByName theirsByName(theirs);
    std::vector<TTaskEntry> merged;
    for (const TTaskEntry& task : theirs.tasks) {
        const TTaskEntry* const before = base.Find(task.name);
        const TTaskEntry* const our = oursByName.Find(task.name);
        if (before != nullptr && our != nullptr)
            merged.push_back(MergeFields(*before, *our, task));
        else if (before == nullptr || !IsGone(*before, task))
            merged.push_back(task);
    }
    for (const TTaskEntry& task : ours.tasks) {
        const TTaskEntry* const before = base.Find(task.name);
        if (theirsByName.Find(task.name) == nullptr &&
            (before == nullptr || !IsGone(*before, task)))
            merged.push_back(task);
    }
    return merged;
}

}  // namespace

std::string MergeChanges(std::string_view base, std::string ours, std::string_view theirs) {
    if (theirs == base || theirs == ours)
        return ours;
    try {
        const TTable before = DecodeTable(base, TTime());
        const TTable our = DecodeTable(ours, TTime());
        const TTable their = DecodeTable(theirs, TTime());
        const CTasksByName beforeByName(before);
        if (beforeByName.IsUnique() && CTasksByName(our).IsUnique() &&
            CTasksByName(their).IsUnique())
            return EncodeTable(MergeTasks(beforeByName, our, their));
    } catch (const CError&) {
        // A damaged table is replaced.
    }
    return ours;
}

std::string Renamed(std::string bytes, const std::vector<TRename>& renames) {
    if (renames.empty())
        return bytes;
    try {
        CNamedTasks tasks(DecodeTable(bytes, TTime()).tasks);
        for (const TRename& rename : renames) {
            if (tasks.Find(rename.from) != nullptr && tasks.Find(rename.to) == nullptr)
                tasks.Rename(rename.from, rename.to);
        }
        return EncodeTable(tasks.Tasks());
    } catch (const CError&) {
        return bytes;
    }
}

}  // namespace vxsched
