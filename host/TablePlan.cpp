#include "host/TablePlan.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "client/Salvage.h"
#include "client/Sources.h"

static std::vector<std::string> OddThings(const std::string& bytes) {
    std::vector<std::string> texts;
    for (const vxsched::TProblem& problem : vxsched::DecodeTable(bytes, vxsched::Now()).problems) {
        if (problem.kind == vxsched::TProblem::cUnusual)
            texts.push_back(
                fmt::format("in the table, at offset {}: {}", problem.offset, problem.text));
    }
    return texts;
}

TTablePlan PlanTable(const std::filesystem::path& directory) {
    TTablePlan plan;
    plan.bytes = vxsched::ReadTableBytes(directory);
    vxsched::TRepair repair = vxsched::PlanRepair(plan.bytes, nullptr, vxsched::Now());
    if (repair.notes.empty())
        plan.warnings = OddThings(plan.bytes);
    else if (const std::optional<vxsched::TSource> source = vxsched::FindSource(directory))
        repair = vxsched::PlanRepair(plan.bytes, &*source, vxsched::Now());
    plan.tasks = std::move(repair.tasks);
    plan.mends = std::move(repair.notes);
    return plan;
}
