#include <vxsched/Repair.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <unordered_map>
#include <unordered_set>

#include <vxsched/Error.h>
#include "store/Grid.h"

namespace vxsched {

namespace {

void RepairHarm(TTaskEntry& task, TProblem::EKind kind, TTime now,
                std::vector<std::string>& notes) {
    if (kind == TProblem::cEndless) {
        notes.push_back(fmt::format(
            "altered \"{}\": its period of {} hours is a step of zero; it is paused now, "
            "with a period of {} hours",
            task.name, task.period, cLongestPeriod));
        task.period = cLongestPeriod;
        task.paused = true;
    } else {
        notes.push_back(fmt::format(
            "altered \"{}\": its due time was too far back; it is rescheduled to its next one",
            task.name));
    }
    task.next = NextOnGrid(task.next, StepOf(task.period), now);
}

// The first task of each name.
std::unordered_map<std::string_view, const TTaskEntry*> ByName(const TBackup* backup) {
    std::unordered_map<std::string_view, const TTaskEntry*> tasks;
    if (backup != nullptr) {
        for (const TTaskEntry& task : backup->tasks)
            tasks.emplace(task.name, &task);
    }
    return tasks;
}

// The tasks of a damaged table, those that are doubtful as in the backup, then the backup's others.
void TakeWhatIsLeft(std::string_view bytes, const TBackup* backup, TRepair& repair) {
    TSalvaged salvaged = Salvage(bytes);
    repair.notes.insert(repair.notes.end(), salvaged.notes.begin(), salvaged.notes.end());
    const std::unordered_map<std::string_view, const TTaskEntry*> intact = ByName(backup);
    std::unordered_set<std::string> names;
    for (std::size_t index = 0; index < salvaged.tasks.size(); ++index) {
        TTaskEntry& task = salvaged.tasks[index];
        names.insert(task.name);
        const auto other = salvaged.isDoubtful[index] ? intact.find(task.name) : intact.end();
        if (other != intact.end()) {
            repair.notes.push_back(
                fmt::format("kept \"{}\" from {}: the damaged table may have it only in part",
                            task.name, backup->name));
            repair.tasks.push_back(*other->second);
            continue;
        }
        repair.notes.push_back(
            fmt::format("kept \"{}\" from the damaged table{}", task.name,
                        salvaged.isDoubtful[index] ? "; check it, it may be cut off" : ""));
        repair.tasks.push_back(std::move(task));
    }
    for (const TTaskEntry& task : backup != nullptr ? backup->tasks : std::vector<TTaskEntry>()) {
        if (!names.insert(task.name).second)
            continue;
        repair.tasks.push_back(task);
        repair.notes.push_back(fmt::format("kept \"{}\" from {}", task.name, backup->name));
    }
}

}  // namespace

TRepair PlanRepair(std::string_view bytes, const TBackup* backup, TTime now) {
    TRepair repair;
    try {
        repair.tasks = DecodeTable(bytes, now).tasks;
    } catch (const CError& error) {
        repair.notes.push_back(error.what());
        TakeWhatIsLeft(bytes, backup, repair);
    }
    for (TTaskEntry& task : repair.tasks) {
        const TTable alone = DecodeTable(EncodeTable({task}), now);
        for (const TProblem& problem : alone.problems) {
            if (problem.kind != TProblem::cUnusual)
                RepairHarm(task, problem.kind, now, repair.notes);
        }
    }
    return repair;
}

}  // namespace vxsched
