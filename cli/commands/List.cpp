// list: all tasks, as columns or JSON.

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/TaskState.h"
#include "cli/output/JobFormat.h"
#include "cli/output/Json.h"
#include "store/CSchedule.h"

namespace vxsched {

namespace {

struct TListed {
    const TTaskEntry* task;
    TTaskState state;
};

EColour ColourOf(const TTaskState& state) {
    if (!state.processes.empty())
        return EColour::cGreen;
    switch (state.state) {
        case TTaskState::cPaused:
            return EColour::cDim;
        case TTaskState::cOverdue:
            return EColour::cRed;
        case TTaskState::cActive:
            break;
    }
    return EColour::cPlain;
}

// Orders by the next due time. Paused tasks have none that counts, and come last.
bool ComesBefore(const TListed& first, const TListed& second) {
    if (first.task->paused != second.task->paused)
        return second.task->paused;
    return first.task->next < second.task->next;
}

nlohmann::ordered_json JsonOf(const TCommon& common, const TListed& listed) {
    const TTaskEntry& task = *listed.task;
    nlohmann::ordered_json json = JsonOfTask(task);
    json["real_program"] = JsonOfString(ProgramOf(common.store.directory, task));
    if (const std::optional<TJob> job = FindJob(task))
        AddJob(json, *job);
    json["next_time"] = FormatIsoTime(task.next);
    json["last_time"] = JsonOfLast(task.last);
    json["state"] = listed.state.Name();
    json["processes"] = listed.state.processes;
    return json;
}

void PrintJson(const TCommon& common, const std::vector<TListed>& listed, COutput& output) {
    nlohmann::ordered_json tasks = nlohmann::ordered_json::array();
    for (const TListed& one : listed)
        tasks.push_back(JsonOf(common, one));
    output.Raw(Document({{"tasks", tasks}}));
}

void PrintTable(const TCommon& common, const std::vector<TListed>& listed, TTime now,
                COutput& output) {
    CColumns columns(
        {"NEXT DUE", "LEFT", "LAST LAUNCH", "PASSED", "EVERY", "STATE", "NAME", "PROGRAM"});
    for (const TListed& one : listed) {
        const TTaskEntry& task = *one.task;
        const bool hasRun = task.last != TTime();
        const bool isAtStartup = task.next == cNever;
        columns.Add(task.paused   ? cNoValue
                    : isAtStartup ? "at startup"
                                  : FormatTime(task.next, common.zone));
        columns.Add(task.paused || isAtStartup ? cNoValue
                                               : FormatDistance(Between(now, task.next)));
        columns.Add(hasRun ? FormatTime(task.last, common.zone) : cNoValue);
        columns.Add(hasRun ? FormatDistance(Between(now, task.last)) : cNoValue);
        columns.Add(FormatSchedule(task));
        columns.Add(one.state.Describe(), ColourOf(one.state));
        columns.Add(task.name, EColour::cBold);
        columns.Add(FormatCommand(common.store.directory, task));
    }
    columns.Print(output);
    output.Line("");
    output.Line(CountOf(listed.size(), "task"));
}

}  // namespace

TExitStatus List(const TCommon& common, bool namesOnly, COutput& output) {
    const TTable table = CStore(common.store).Read();
    // For completion scripts, which need the exact bytes and no state.
    if (namesOnly) {
        for (const TTaskEntry& task : table.tasks)
            output.Line(output.IsTerminal() ? Show(task.name).string : task.name);
        return cDone;
    }
    const TTime now = Now();
    const CRunningTasks running(common.store.directory);
    std::vector<TListed> listed;
    listed.reserve(table.tasks.size());
    for (const TTaskEntry& task : table.tasks)
        listed.push_back({&task, StateOf(task, running, now)});
    std::stable_sort(listed.begin(), listed.end(), ComesBefore);
    if (common.json)
        PrintJson(common, listed, output);
    else
        PrintTable(common, listed, now, output);
    return cDone;
}

}  // namespace vxsched
