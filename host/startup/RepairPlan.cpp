#include "host/startup/RepairPlan.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include <vxsched/Repair.h>
#include "store/Backups.h"
#include "store/LostTasks.h"
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

TRepairPlan PlanStartupRepair(const std::filesystem::path& directory) {
    TRepairPlan plan;
    plan.bytes = vxsched::ReadTableBytes(directory);
    vxsched::TRepair repair = vxsched::PlanRepair(plan.bytes, nullptr, vxsched::Now());
    if (repair.notes.empty())
        plan.unusualValues = UnusualProblems(plan.bytes);
    else if (const std::optional<vxsched::TBackup> backup = vxsched::FindBackup(directory))
        repair = vxsched::PlanRepair(plan.bytes, &*backup, vxsched::Now());
    // An empty table is valid and may be intended. But the add-in also leaves an empty table when a
    // client that calls its functions directly loads it on a damaged one.
    if (plan.bytes == vxsched::EncodeTable({})) {
        if (auto loss = vxsched::DescribeLostTasks(directory, "empty"))
            plan.possibleLosses.push_back(*std::move(loss));
    }
    plan.tasks = std::move(repair.tasks);
    plan.repairs = std::move(repair.notes);
    return plan;
}
