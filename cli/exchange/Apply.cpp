// apply: has the tasks of files under version control be as these say.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "cli/commands/Commands.h"
#include "cli/commands/DescribeTask.h"
#include "cli/exchange/ApplySteps.h"
#include "cli/exchange/FileTasks.h"
#include "cli/exchange/ReadInput.h"
#include "cli/output/Json.h"
#include "store/AppliedTasks.h"
#include "store/CNamedTasks.h"
#include "store/MakeError.h"
#include "store/StoreOwner.h"

namespace vxsched {

namespace {

using TSteps = std::vector<TApplyStep>;

// What is printed of a step.
struct TStepWords {
    const char* json;
    const char* done;
    const char* would;
};
// In the order of TApplyStep::EKind.
constexpr std::array<TStepWords, 7> cStepWords = {{{"create", "created", "would create"},
                                                   {"edit", "changed", "would change"},
                                                   {"remove", "removed", "would remove"},
                                                   {"leave", "left", "would leave"},
                                                   {"gone", "", ""},
                                                   {"none", "", ""},
                                                   {"past", "", ""}}};

// As which a store knows a file, or a directory of them.
std::string IdentityOf(std::string path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return AbsolutePath(path);
}

// The record of the file with those that the steps make, as they make them. Those that the file has no more
// stay, until they are removed.
std::vector<TTaskEntry> RecordWith(const TSteps& steps, const std::vector<TTaskEntry>& made) {
    CNamedTasks record(made);
    for (const TApplyStep& step : steps) {
        TTaskEntry* const found = record.Find(step.task.name);
        const bool isWanted = step.kind == TApplyStep::cEdit || step.kind == TApplyStep::cNothing;
        if (found != nullptr && (isWanted || step.kind == TApplyStep::cCreate))
            *found = step.task;
        else if (step.kind == TApplyStep::cCreate)
            record.Add(step.task);
    }
    return record.Tasks();
}

// The record without the tasks that are gone.
std::vector<TTaskEntry> RecordOf(const TSteps& steps, std::vector<TTaskEntry> record) {
    std::set<std::string_view> present;
    for (const TApplyStep& step : steps) {
        if (step.kind != TApplyStep::cRemove && step.kind != TApplyStep::cPast)
            present.insert(step.task.name);
    }
    std::erase_if(record, [&](const TTaskEntry& task) { return !present.contains(task.name); });
    return record;
}

// Makes the changes of the steps, and returns the tasks that these leave. The record of the file has what is
// made before the table has it, and what is removed until it has not: a kill in between loses nothing of it.
std::vector<TTaskEntry> Make(const TCommon& common, const TSteps& steps, CChanges& changes,
                             const std::string& identity, const std::vector<TTaskEntry>& made) {
    if (common.dryRun)
        return changes.Check();
    const auto keep = [&](const std::vector<TTaskEntry>& former, const auto& record) {
        if (!identity.empty() && record != former)
            WriteAppliedTasks(common.store.directory, identity, record);
    };
    const std::vector<TTaskEntry> before = RecordWith(steps, made);
    keep(made, before);
    std::vector<TTaskEntry> left = changes.Commit();
    keep(before, RecordOf(steps, before));
    return left;
}

// Throws CError (cRefused) after it has printed the errors, unless there are none.
void RefuseFor(const std::vector<std::string>& errors) {
    for (const std::string& error : errors)
        std::cerr << fmt::format("vxsched: {}\n", Show(error).string);
    if (!errors.empty())
        throw MakeError(EError::cRefused, "nothing was changed, because of {}",
                        CountOf(errors.size(), "error"));
}

bool HasChange(const TSteps& steps) {
    return std::any_of(steps.begin(), steps.end(),
                       [](const TApplyStep& step) { return step.IsChange(); });
}

void PrintJson(const TCommon& common, const TSteps& steps, COutput& output) {
    const auto valueOf = [](const std::string& value) {
        return value.empty() ? nlohmann::ordered_json() : JsonOfString(value);
    };
    nlohmann::ordered_json tasks = nlohmann::ordered_json::array();
    for (const TApplyStep& step : steps) {
        nlohmann::ordered_json fields = nlohmann::ordered_json::object();
        for (const TFieldChange& field : step.fields)
            fields[field.field] = {{"before", valueOf(field.before)},
                                   {"after", valueOf(field.after)}};
        tasks.push_back({{"name", JsonOfString(step.task.name)},
                         {"change", cStepWords.at(step.kind).json},
                         {"fields", fields}});
    }
    output.Raw(
        Document({{"changed", HasChange(steps)}, {"dry_run", common.dryRun}, {"tasks", tasks}}));
}

std::string Shown(const std::string& value) {
    return value.empty() ? "none" : Show(value).string;
}

void PrintStep(const TCommon& common, const TApplyStep& step, CNamedTasks& left, COutput& output) {
    const TStepWords& words = cStepWords.at(step.kind);
    const TTaskEntry* const task = left.Find(step.task.name);
    const std::string what = task == nullptr || step.kind == TApplyStep::cLeave
                                 ? step.task.name
                                 : DescribeTask(common, *task);
    output.Line(Show(fmt::format("{} {}", common.dryRun ? words.would : words.done, what)).string);
    if (step.kind == TApplyStep::cRemove)
        return;
    for (const TFieldChange& field : step.fields) {
        output.Line(step.kind == TApplyStep::cCreate
                        ? fmt::format("  {}: {}", field.field, Shown(field.after))
                        : fmt::format("  {}: {} -> {}", field.field, Shown(field.before),
                                      Shown(field.after)));
    }
    if (step.kind == TApplyStep::cLeave)
        output.Line(Show(fmt::format("  it was changed since it was made from the file; remove it "
                                     "by vxsched remove {}",
                                     ShellWord(step.task.name)))
                        .string);
}

void PrintText(const TCommon& common, const TSteps& steps, std::vector<TTaskEntry> tasks,
               COutput& output) {
    CNamedTasks left(std::move(tasks));
    std::array<std::size_t, cStepWords.size()> counts{};
    for (const TApplyStep& step : steps) {
        ++counts.at(step.kind);
        if (step.IsChange() || step.kind == TApplyStep::cLeave)
            PrintStep(common, step, left, output);
    }
    output.Line(fmt::format(
        "{} created, {} changed, {} removed, {} unchanged", counts[TApplyStep::cCreate],
        counts[TApplyStep::cEdit], counts[TApplyStep::cRemove],
        counts[TApplyStep::cNothing] + counts[TApplyStep::cPast] + counts[TApplyStep::cLeave]));
    if (const std::size_t gone = counts[TApplyStep::cGone]; gone != 0)
        output.Line(fmt::format("{} made from it {} not in it any more; --prune removes {}",
                                CountOf(gone, "task"), gone == 1 ? "is" : "are",
                                gone == 1 ? "it" : "them"));
}

}  // namespace

TExitStatus Apply(const TCommon& common, const std::string& path, bool prune, COutput& output) {
    if (prune && path == cStandardInput)
        throw CUsageError(
            "apply: --prune removes what was made of a file before; give a file, not -");
    const std::vector<TTaskSource> sources = ReadTaskSources(path);  // which the owner may not read
    const std::string identity = path == cStandardInput ? "" : IdentityOf(path);
    BecomeForeignOwner(common.store.directory);
    const TWantedTasks wanted = FindWantedTasks(common, sources);
    RefuseFor(wanted.errors);
    const std::vector<TTaskEntry> made = identity.empty()
                                             ? std::vector<TTaskEntry>()
                                             : ReadAppliedTasks(common.store.directory, identity);
    const TSteps steps =
        FindApplySteps(common, CStore(common.store).Read().tasks, wanted.tasks, made, prune);
    std::vector<std::string> problems;
    for (const TApplyStep& step : steps) {
        if (std::string problem = FindProblem(common, step); !problem.empty())
            problems.push_back(std::move(problem));
    }
    RefuseFor(problems);
    CChanges changes(common.store);
    for (const TApplyStep& step : steps)
        AddStep(step, common.forced, changes);
    std::vector<TTaskEntry> left = Make(common, steps, changes, identity, made);
    if (common.json)
        PrintJson(common, steps, output);
    else
        PrintText(common, steps, std::move(left), output);
    return cDone;
}

}  // namespace vxsched
