#include "host/startup/RepairPlan.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <optional>
#include <utility>

#include <vxsched/Repair.h>
#include "store/Backups.h"
#include "store/TableFile.h"

static std::vector<std::string> UnusualProblems(const std::string& bytes) {
    std::vector<std::string> messages;
    for (const vxsched::TProblem& problem : vxsched::DecodeTable(bytes, vxsched::Now()).problems) {
        if (problem.kind == vxsched::TProblem::cUnusual)
            messages.push_back(
                fmt::format("in the table, at offset {}: {}", problem.offset, problem.message));
    }
    return messages;
}

// Returns the names of the tasks that should still be in the table. One that runs once and was due
// may have run since the backup was made.
static std::vector<std::string> NamesOfComingTasks(const std::vector<vxsched::TTaskEntry>& tasks) {
    const vxsched::TTime now = vxsched::Now();
    std::vector<std::string> names;
    for (const vxsched::TTaskEntry& task : tasks) {
        if (task.period != 0 || task.next > now)
            names.push_back(fmt::format("\"{}\"", task.name));
    }
    return names;
}

// An empty table is valid and may be intended. But the add-in also leaves an empty table when a
// client that calls its functions directly loads it on a damaged one.
static std::optional<std::string> LossThroughEmptyTable(const std::filesystem::path& directory) {
    const std::optional<vxsched::TBackup> backup = vxsched::FindBackup(directory);
    const std::vector<std::string> names =
        NamesOfComingTasks(backup ? backup->tasks : std::vector<vxsched::TTaskEntry>());
    if (names.empty())
        return {};
    return fmt::format(
        "the table is empty, but its latest backup, {}, has {} task(s): {}. If they were not "
        "removed on purpose, stop vxschedd, copy that file over {}, and start vxschedd again.",
        backup->file.string(), names.size(), fmt::join(names, ", "),
        vxsched::TableFile(directory).string());
}

TRepairPlan PlanStartupRepair(const std::filesystem::path& directory) {
    TRepairPlan plan;
    plan.bytes = vxsched::ReadTableBytes(directory);
    vxsched::TRepair repair = vxsched::PlanRepair(plan.bytes, nullptr, vxsched::Now());
    if (repair.notes.empty())
        plan.unusualValues = UnusualProblems(plan.bytes);
    else if (const std::optional<vxsched::TBackup> backup = vxsched::FindBackup(directory))
        repair = vxsched::PlanRepair(plan.bytes, &*backup, vxsched::Now());
    if (plan.bytes == vxsched::EncodeTable({})) {
        if (auto loss = LossThroughEmptyTable(directory))
            plan.possibleLosses.push_back(*std::move(loss));
    }
    plan.tasks = std::move(repair.tasks);
    plan.repairs = std::move(repair.notes);
    return plan;
}
