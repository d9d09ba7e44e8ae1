#include "cli/exchange/ApplySteps.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include <vxsched/Error.h>
#include "client/EditTask.h"
#include "store/CNamedTasks.h"
#include "store/CSchedule.h"
#include "store/Grid.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

using std::chrono::seconds;

constexpr char cEveryField[] = "every";
constexpr char cAtField[] = "at";
constexpr char cPausedField[] = "paused";

std::string TextOf(bool isTrue) {
    return isTrue ? "true" : "false";
}

// The due time that puts a task on the grid of the file's time; empty if it is there.
std::optional<TTime> DueToSet(const TTaskEntry& present, const TWantedTask& wanted, TTime now) {
    if (!wanted.at || present.next == *wanted.at || CSchedule(wanted.entry).HasCalendar())
        return {};
    const TTime first = *wanted.at;
    const seconds step = StepOf(wanted.entry.period);
    if (step == seconds(0))
        return first;
    const bool isOnGrid = Between(first, present.next) % step == seconds(0);
    if (isOnGrid && (present.next >= first || first <= now))
        return {};
    return NextOnGrid(first, step, now);
}

TApplyStep StepFor(const TCommon& common, const TTaskEntry* present, const TWantedTask& wanted) {
    const TTime now = Now();
    TApplyStep step;
    step.task = wanted.entry;
    step.where = wanted.where;
    const std::optional<TTime> first = FirstDue(wanted, now);
    if (!first) {
        step.kind = present == nullptr ? TApplyStep::cPast : TApplyStep::cNothing;
        return step;
    }
    if (present != nullptr)
        step.former = *present;
    step.kind = present == nullptr ? TApplyStep::cCreate : TApplyStep::cEdit;
    const TTaskFields before =
        present == nullptr ? TTaskFields() : FieldsOf(common.store.directory, *present);
    step.fields = Difference(before, FieldsOf(common.store.directory, wanted.entry));
    const auto format = [&](TTime time) { return FormatTime(time, common.zone); };
    step.due = present == nullptr ? first : DueToSet(*present, wanted, now);
    if (step.due && wanted.at)
        step.fields.push_back(
            {cAtField, present == nullptr ? "" : format(present->next), format(*step.due)});
    const bool isPaused = present != nullptr && present->paused;
    if (wanted.paused.value_or(isPaused) != isPaused) {
        step.paused = wanted.paused;
        step.fields.push_back({cPausedField, TextOf(isPaused), TextOf(!isPaused)});
    }
    if (step.fields.empty())
        step.kind = TApplyStep::cNothing;
    return step;
}

bool IsOfJob(const TFieldChange& change) {
    return change.field != cEveryField && change.field != cAtField && change.field != cPausedField;
}

TEdit EditOf(const TApplyStep& step) {
    TEdit edit{.due = step.due};
    if (std::any_of(step.fields.begin(), step.fields.end(), IsOfJob)) {
        edit.program = step.task.program;
        edit.parameter = step.task.parameter;
    }
    // A calendar sets the period itself; from one to a period, both differ.
    const bool hasPeriod =
        std::any_of(step.fields.begin(), step.fields.end(), [](const TFieldChange& change) {
            return change.field == cEveryField && !change.after.empty();
        });
    if (hasPeriod)
        edit.period = step.task.period;
    return edit;
}

TNewTask NewTask(const TApplyStep& step) {
    const TTaskEntry& task = step.task;
    return {task.name, *step.due, task.period, task.program, task.parameter};
}

}  // namespace

std::vector<TApplyStep> FindApplySteps(const TCommon& common, std::vector<TTaskEntry> present,
                                       const std::vector<TWantedTask>& wanted,
                                       const std::vector<TTaskEntry>& made, bool prune) {
    CNamedTasks tasks(std::move(present));
    std::vector<TApplyStep> steps;
    std::set<std::string_view> names;
    for (const TWantedTask& task : wanted) {
        names.insert(task.entry.name);
        steps.push_back(StepFor(common, tasks.Find(task.entry.name), task));
    }
    for (const TTaskEntry& task : made) {
        const TTaskEntry* const found = tasks.Find(task.name);
        if (names.contains(task.name) || found == nullptr)
            continue;
        TApplyStep step{.kind = prune ? TApplyStep::cRemove : TApplyStep::cGone, .task = *found};
        // Who has changed it, or has made another of its name, wants to keep it.
        step.fields = Difference(FieldsOf(common.store.directory, task),
                                 FieldsOf(common.store.directory, *found));
        if (prune && !step.fields.empty())
            step.kind = TApplyStep::cLeave;
        steps.push_back(std::move(step));
    }
    return steps;
}

std::string FindProblem(const TCommon& common, const TApplyStep& step) {
    const fs::path& directory = common.store.directory;
    try {
        if (step.kind == TApplyStep::cCreate)
            RefuseFor(FindUnforced(directory, EntryOf(NewTask(step)), common.forced));
        else if (step.kind == TApplyStep::cEdit)
            Edited(directory, step.former, EditOf(step), common.forced);
        return "";
    } catch (const CError& error) {
        return fmt::format("{}: task \"{}\": {}", step.where, step.task.name, error.what());
    }
}

void AddStep(const TApplyStep& step, const TForced& forced, CChanges& changes) {
    const TTaskEntry& task = step.task;
    if (step.kind == TApplyStep::cCreate) {
        changes.Create(NewTask(step), false, forced);
    } else if (step.kind == TApplyStep::cRemove) {
        changes.Remove({task.name});
    } else if (step.kind == TApplyStep::cEdit) {
        const TEdit edit = EditOf(step);
        if (edit.due || edit.period || edit.program)
            changes.Edit(task.name, edit, forced);
    }
    if (step.paused == true)
        changes.Pause({task.name});
    else if (step.paused == false)
        changes.Resume({task.name}, forced);
}

}  // namespace vxsched
