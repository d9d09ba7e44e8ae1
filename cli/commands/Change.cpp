// create, edit, remove, pause, resume, period and wake.

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "cli/commands/CalendarArguments.h"
#include "cli/commands/Commands.h"
#include "cli/commands/DescribeTask.h"
#include "cli/commands/LaunchesAhead.h"
#include "cli/commands/PausedTasks.h"
#include "cli/commands/Selection.h"
#include "cli/output/JobFormat.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"
#include "runs/OutputFiles.h"
#include "store/CNamedTasks.h"
#include "store/CSchedule.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace {

void PrintLine(COutput& output, const std::string& line) {
    output.Line(Show(line).string);
}

// How a command reports a task: one that it has changed or would change, and one that was or is
// already as it would make it.
struct TWords {
    const char* done;
    const char* would;
    const char* was = "";
    const char* is = "";
};

// Those that a resume removes, if that is forced: they run once, and their due time is past.
std::set<std::string> FindPastTasks(const CStore& store, const TNames& names) {
    std::set<std::string> past;
    CNamedTasks tasks(store.Read().tasks);
    const TTime now = Now();
    for (const std::string& name : names) {
        const TTaskEntry* const task = tasks.Find(name);
        if (task != nullptr && task->paused && task->period == 0 && task->next <= now)
            past.insert(name);
    }
    return past;
}

// Reports arguments that are no job as those of the command.
void AsUsage(const char* command, const std::function<void()>& action) {
    try {
        action();
    } catch (const CJobError& error) {
        throw CUsageError(fmt::format("{}: {}", command, error.what()));
    }
}

// Makes the changes, or checks them for a dry run.
std::vector<TTaskEntry> Make(const TCommon& common, CChanges& changes) {
    return common.dryRun ? changes.Check() : changes.Commit();
}

// Makes the changes that `note` notes for the names, and reports each. `paused`: what the change sets,
// if it pauses or resumes. `removed`: the tasks that it removes instead.
template <typename Note>
void ChangeNames(const TCommon& common, const TNames& names, const TWords& words,
                 std::optional<bool> paused, const std::set<std::string>& removed, COutput& output,
                 const Note& note) {
    const auto before = paused ? FindPausedTasks(common.store.directory) : std::nullopt;
    CChanges changes(common.store);
    note(changes);
    Make(common, changes);
    for (const std::string& name : names) {
        if (removed.contains(name))
            PrintLine(output, fmt::format("{} {}: it runs once and its due time is past",
                                          common.dryRun ? "would remove" : "removed", name));
        else if (before && before->contains(name) == *paused)
            PrintLine(output, fmt::format("{} {}", name, common.dryRun ? words.is : words.was));
        else
            PrintLine(output, fmt::format("{} {}", common.dryRun ? words.would : words.done, name));
    }
}

bool ChangesSchedule(const TTaskArguments& arguments) {
    const auto isGiven = [&](std::string_view option) {
        return arguments.options.contains(std::string(option));
    };
    return arguments.at || arguments.every || isGiven(cCronOption) || isGiven(cZoneOption) ||
           isGiven(cUntilOption);
}

// What is recorded of a task before its new name stays under the former one.
std::string NoteOfFormerRuns(const TCommon& common, const std::string& name,
                             const TTaskEntry& task) {
    if (task.last == TTime() && FindOutputs(common.store.directory, name).empty())
        return "";
    return fmt::format(
        "its former runs stay under {0}: see vxsched history {1}, vxsched output {1}", name,
        ShellWord(name));
}

// Of a task that had that name before the edit.
void PrintEdited(const TCommon& common, const std::string& name, const TTaskEntry& task,
                 COutput& output) {
    const bool isRenamed = task.name != name;
    const std::string what = isRenamed ? fmt::format("{} to ", name) : "";
    const char* const done = isRenamed ? "renamed" : "changed";
    const char* const would = isRenamed ? "would rename" : "would change";
    PrintLine(output, fmt::format("{} {}{}", common.dryRun ? would : done, what,
                                  DescribeTask(common, task)));
    const std::string note = isRenamed ? NoteOfFormerRuns(common, name, task) : "";
    if (!note.empty())
        PrintLine(output, note);
}

}  // namespace

TExitStatus Create(const TCommon& common, const TTaskArguments& typed, bool replace,
                   COutput& output) {
    const TTime now = Now();
    const TTaskArguments arguments = ByCron(typed);
    TTaskEntry entry;
    entry.name = arguments.name;
    AsUsage("create", [&] { MakeJob(common.store.directory, entry, arguments); });
    entry.next = ParseTime(arguments.at.value_or("now"), now);
    entry.period = ParsePeriod(arguments.every.value_or("once"));
    const TNewTask task{entry.name, entry.next, entry.period, entry.program, entry.parameter};
    CChanges changes(common.store);
    changes.Create(task, replace, common.forced);
    const TTaskEntry made = Make(common, changes).front();
    PrintLine(output, (common.dryRun ? "would create " : "created ") + DescribeTask(common, made));
    PrintLaunchesAhead(common, made, output);
    return cDone;
}

TExitStatus Edit(const TCommon& common, const TSelection& selection, const TTaskArguments& typed,
                 COutput& output) {
    const TTaskArguments arguments = ByCron(typed);
    TEdit edit;
    if (arguments.at)
        edit.due = ParseTime(*arguments.at, Now());
    if (arguments.every)
        edit.period = ParsePeriod(*arguments.every);
    edit.name = arguments.newName;
    if (!edit.due && !edit.period && !edit.name && arguments.IsEmpty())
        throw CUsageError(
            "edit: nothing to change; give --name, --at, --every, another option, or a program "
            "after --");
    if (!arguments.IsEmpty())
        edit.command = [&](TTaskEntry& task) {
            AsUsage("edit", [&] { ChangeJob(common.store.directory, task, arguments); });
        };
    ForSelected(common, selection, [&](const TNames& names) {
        if (edit.name && names.size() != 1)
            throw CUsageError("edit: --name takes one task, since names are unique");
        CChanges changes(common.store);
        for (const std::string& name : names)
            changes.Edit(name, edit, common.forced);
        for (const TTaskEntry& task : Make(common, changes)) {
            PrintEdited(common, edit.name ? names.front() : task.name, task, output);
            if (ChangesSchedule(arguments) && names.size() == 1)
                PrintLaunchesAhead(common, task, output);
        }
    });
    return cDone;
}

TExitStatus Remove(const TCommon& common, const TSelection& selection, COutput& output) {
    ForSelected(common, selection, [&](const TNames& names) {
        ChangeNames(common, names, {"removed", "would remove"}, {}, {}, output,
                    [&](CChanges& changes) { changes.Remove(names); });
    });
    return cDone;
}

TExitStatus Pause(const TCommon& common, const TSelection& selection, COutput& output) {
    const TWords words = {"paused", "would pause", "was paused already", "is paused already"};
    ForSelected(common, selection, [&](const TNames& names) {
        ChangeNames(common, names, words, true, {}, output,
                    [&](CChanges& changes) { changes.Pause(names); });
    });
    return cDone;
}

TExitStatus Resume(const TCommon& common, const TSelection& selection, COutput& output) {
    const TWords words = {"resumed", "would resume", "was not paused", "is not paused"};
    ForSelected(common, selection, [&](const TNames& names) {
        const std::set<std::string> removed = common.forced.contains("past-due")
                                                  ? FindPastTasks(CStore(common.store), names)
                                                  : std::set<std::string>();
        ChangeNames(common, names, words, false, removed, output,
                    [&](CChanges& changes) { changes.Resume(names, common.forced); });
    });
    return cDone;
}

TExitStatus SetPeriod(const TCommon& common, const TSelection& selection, const std::string& every,
                      COutput& output) {
    const std::uint32_t hours = ParsePeriod(every);
    ForSelected(common, selection, [&](const TNames& names) {
        CChanges changes(common.store);
        for (const std::string& name : names)
            changes.SetPeriod(name, hours, common.forced);
        for (const TTaskEntry& task : Make(common, changes))
            PrintLine(output,
                      (common.dryRun ? "would change " : "changed ") + DescribeTask(common, task));
    });
    return cDone;
}

TExitStatus Wake(const TCommon& common, COutput& output) {
    const CStore store(common.store);
    if (!store.Wake())
        throw MakeError(EError::cNoScheduler,
                        "no scheduling process runs in {}; start vxschedd there",
                        AbsolutePath(common.store.directory));
    output.Line("woke the scheduling process");
    return cDone;
}

}  // namespace vxsched
