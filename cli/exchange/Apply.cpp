// apply: has the tasks of files under version control be as these say.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
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

// How often the steps are found again because tasks change meanwhile.
constexpr int cTries = 20;

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
    // A ".." that follows a link is taken for what is written, as the links are that the path goes through.
    return std::filesystem::path(AbsolutePath(path)).lexically_normal().string();
}

// The record of the file once the steps are made. Of the tasks that the file has no more it keeps those that stay.
std::vector<TTaskEntry> RecordAfter(const TSteps& steps, const std::vector<TTaskEntry>& made) {
    CNamedTasks former(made);
    std::vector<TTaskEntry> record;
    for (const TApplyStep& step : steps) {
        const TTaskEntry* const found = former.Find(step.task.name);
        const bool isAsWanted = step.kind == TApplyStep::cEdit || step.kind == TApplyStep::cNothing;
        const bool stays = step.kind == TApplyStep::cGone || step.kind == TApplyStep::cLeave;
        if (step.kind == TApplyStep::cCreate || (found != nullptr && isAsWanted))
            record.push_back(step.task);
        else if (found != nullptr && stays)
            record.push_back(*found);
    }
    return record;
}

// Makes the changes of the steps, and returns the tasks that these leave.
std::vector<TTaskEntry> Make(const TCommon& common, const TSteps& steps, CChanges& changes,
                             const std::string& identity, const std::vector<TTaskEntry>& made) {
    if (common.dryRun)
        return changes.Check();
    const std::vector<TTaskEntry> record = RecordAfter(steps, made);
    if (identity.empty() || record == made)
        return changes.Commit();
    CAppliedTasksChange change(common.store.directory, identity, record);
    std::vector<TTaskEntry> left;
    try {
        left = changes.Commit();
    } catch (const CError& error) {
        if (error.Code() == EError::cUnknown)
            change.LeaveOpen();
        throw;
    }
    change.Make();
    return left;
}

// Throws CError (cRefused) after it has printed the errors, unless there are none.
void RefuseAll(const std::vector<std::string>& errors) {
    for (const std::string& error : errors)
        std::cerr << fmt::format("vxsched: {}\n", Show(error).string);
    if (!errors.empty())
        throw MakeError(EError::cRefused, "nothing was changed, because of {}",
                        CountOf(errors.size(), "error"));
}

// Finds and makes the steps, again if the tasks change meanwhile. Returns the tasks that these leave.
std::vector<TTaskEntry> ApplyTo(const TCommon& common, const std::string& identity,
                                const std::vector<TWantedTask>& wanted, bool prune, TSteps& steps) {
    for (int tries = cTries;; --tries) {
        const std::vector<TTaskEntry> made =
            identity.empty() ? std::vector<TTaskEntry>()
                             : ReadAppliedTasks(common.store.directory, identity);
        const std::vector<TTaskEntry> present = CStore(common.store).Read().tasks;
        steps = FindApplySteps(common, present, wanted, made, prune);
        std::vector<std::string> problems;
        CChanges changes(common.store);
        for (const TApplyStep& step : steps) {
            if (std::string problem = FindProblem(common, step); !problem.empty())
                problems.push_back(std::move(problem));
            AddStep(step, common.forced, changes);
        }
        RefuseAll(problems);
        try {
            return Make(common, steps, changes, identity, made);
        } catch (const CError& error) {
            const bool mayBeOld =
                error.Code() == EError::cRefused || error.Code() == EError::cNotFound;
            if (tries == 0 || !mayBeOld || CStore(common.store).Read().tasks == present)
                throw;
        }
    }
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
    RefuseAll(wanted.errors);
    TSteps steps;
    std::vector<TTaskEntry> left = ApplyTo(common, identity, wanted.tasks, prune, steps);
    if (common.json)
        PrintJson(common, steps, output);
    else
        PrintText(common, steps, std::move(left), output);
    return cDone;
}

}  // namespace vxsched
