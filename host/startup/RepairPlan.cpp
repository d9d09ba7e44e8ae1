#include "host/startup/RepairPlan.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <optional>
#include <system_error>
#include <utility>

#include <vxsched/Repair.h>
#include "store/Backups.h"
#include "store/TableFile.h"

static std::vector<std::string> UnusualProblems(const std::string& bytes) {
    std::vector<std::string> texts;
    for (const vxsched::TProblem& problem : vxsched::DecodeTable(bytes, vxsched::Now()).problems) {
        if (problem.kind == vxsched::TProblem::cUnusual)
            texts.push_back(
                fmt::format("in the table, at offset {}: {}", problem.offset, problem.text));
    }
    return texts;
}

// Whoever misses the disk that a link leads to should not take the host's word that all is well.
static std::optional<std::string> AlarmOfALinkToNothing(const std::filesystem::path& table) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(table, error);
    if (error || std::filesystem::exists(table, error))
        return {};
    return fmt::format(
        "{} is a link to {}, which is not there: it counts as a table of no tasks. "
        "Bring back what it leads to, and start vxschedd again.",
        table.string(), target.string());
}

// A task that runs once may have run when the copy was made, and be gone for that.
static std::vector<std::string> NamesOfComingTasks(const std::vector<vxsched::TTaskEntry>& tasks) {
    const vxsched::TTime now = vxsched::Now();
    std::vector<std::string> names;
    for (const vxsched::TTaskEntry& task : tasks) {
        if (task.period != 0 || task.next > now)
            names.push_back(fmt::format("\"{}\"", task.name));
    }
    return names;
}

// An empty table is sound, and may be meant. But a library that meets a damaged one leaves it so, too.
static std::optional<std::string> AlarmOfAnEmptyTable(const std::filesystem::path& directory) {
    const std::optional<vxsched::TBackup> source = vxsched::FindBackup(directory);
    const std::vector<std::string> names =
        NamesOfComingTasks(source ? source->tasks : std::vector<vxsched::TTaskEntry>());
    if (names.empty())
        return {};
    return fmt::format(
        "the table is empty, whereas the last copy of it, {}, has {} task(s): {}. If they were not "
        "removed on purpose: stop vxschedd, copy that file over {}, and start it again.",
        source->file.string(), names.size(), fmt::join(names, ", "),
        vxsched::TableFile(directory).string());
}

TRepairPlan PlanStartupRepair(const std::filesystem::path& directory) {
    TRepairPlan plan;
    plan.bytes = vxsched::ReadTableBytes(directory);
    vxsched::TRepair repair = vxsched::PlanRepair(plan.bytes, nullptr, vxsched::Now());
    if (repair.notes.empty())
        plan.warnings = UnusualProblems(plan.bytes);
    else if (const std::optional<vxsched::TBackup> source = vxsched::FindBackup(directory))
        repair = vxsched::PlanRepair(plan.bytes, &*source, vxsched::Now());
    if (auto alarm = AlarmOfALinkToNothing(vxsched::TableFile(directory)))
        plan.alarms.push_back(*std::move(alarm));
    if (plan.bytes == vxsched::EncodeTable({})) {
        if (auto alarm = AlarmOfAnEmptyTable(directory))
            plan.alarms.push_back(*std::move(alarm));
    }
    plan.tasks = std::move(repair.tasks);
    plan.repairs = std::move(repair.notes);
    return plan;
}
