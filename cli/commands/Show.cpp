// show: one task in full.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "calendar/Describe.h"
#include "cli/commands/Commands.h"
#include "cli/commands/TaskState.h"
#include "cli/output/JobFormat.h"
#include "cli/output/Json.h"
#include "cli/output/RunFormat.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/JobOptions.h"
#include "runs/HistoryReader.h"
#include "runs/OutputFiles.h"
#include "store/CSchedule.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"
#include "store/OwedLaunches.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace {

// The reason why the task's program is not running at this moment; empty if it is.
std::string WhyNot(const TCommon& common, const TTaskEntry& task, const TTaskState& state,
                   TTime now) {
    if (!state.processes.empty())
        return "";
    TTaskEntry real = task;
    real.program = RealProgram(common.store.directory, task.program);
    const EProgram how = real.program == task.program ? EProgram::cAsNamed : EProgram::cThroughLink;
    if (const CSchedule schedule(task); !schedule.Problem().empty())
        return schedule.Problem();
    for (const TValidationError& error : Validate(real, now, how)) {
        if (error.IsAboutProgram() || error.kind == TValidationError::cNoJob)
            return error.message;
    }
    if (task.paused)
        return fmt::format("it is paused; run vxsched resume {}", ShellWord(task.name));
    const std::optional<TSchedulingProcess> scheduler =
        FindSchedulingProcess(common.store.directory);
    if (!scheduler)
        return fmt::format("no scheduling process runs in {}; start vxschedd there",
                           AbsolutePath(common.store.directory));
    if (!scheduler->sharesStore)
        return fmt::format("the scheduling process, {}, runs in another IPC namespace",
                           scheduler->Name());
    if (state.state == TTaskState::cOverdue)
        return fmt::format(
            "it is overdue although the scheduling process, {}, is running; check the log of that "
            "process",
            scheduler->Name());
    if (task.next == cNever)
        return "it is launched at the next startup of the machine";
    return fmt::format("it is not due until {}", FormatTime(task.next, common.zone));
}

std::string TimeAndDistance(TTime time, TTime now, EZone zone) {
    return fmt::format("{} ({}{})", FormatTime(time, zone), time > now ? "in " : "",
                       FormatDistance(Between(now, time)));
}

constexpr std::size_t cShownRuns = 5;

// The last runs, the latest first.
std::vector<TRunRecord> LastRuns(const TCommon& common, const std::string& name) {
    std::vector<TRunRecord> runs = ReadHistory(common.store.directory, name).runs;
    std::reverse(runs.begin(), runs.end());
    runs.resize(std::min(runs.size(), cShownRuns));
    return runs;
}

bool HasRun(const TRunRecord& run) {
    return run.outcome != TRunRecord::cNotStarted && run.outcome != TRunRecord::cSkipped &&
           HasLaunch(run);
}

// The file of the last output that is kept; empty if there is none.
std::string LastOutput(const TCommon& common, const std::string& name) {
    const std::vector<TOutput> outputs = FindOutputs(common.store.directory, name);
    if (outputs.empty())
        return "";
    return (std::filesystem::path(common.store.directory) / outputs.front().path)
        .lexically_normal();
}

// The due times of the task's launches that are owed.
std::vector<TTime> OwedTimes(const TCommon& common, const std::string& name) {
    std::vector<TTime> times;
    for (const TOwedLaunch& launch : FindOwedLaunches(common.store.directory)) {
        if (launch.task == name)
            times.push_back(launch.due);
    }
    return times;
}

// The error for a name that the table does not have. A task that runs once is removed when it is
// launched or its launch is owed, so the history may still have the name.
CError NoTask(const TCommon& common, const std::string& name, const TTable& table) {
    try {
        if (const std::vector<TTime> owed = OwedTimes(common, name); !owed.empty())
            return MakeError(
                EError::cNotFound,
                "there is no task \"{}\"; its launch is owed, due {}: see vxsched status", name,
                FormatTime(owed.front(), common.zone));
        const std::vector<TRunRecord> runs = LastRuns(common, name);
        if (!runs.empty())
            return MakeError(
                EError::cNotFound, "there is no task \"{}\"; {}: see vxsched history {}", name,
                std::any_of(runs.begin(), runs.end(), HasRun) ? "it has run" : "it did not run",
                ShellWord(name));
    } catch (const CError&) {
        // A file cannot be read; there is no such task all the same.
    }
    return NoSuchTask(name, table);
}

// The time of the launch, or the due time of a run that was missed, and the outcome.
std::string FormatRun(const TRunRecord& run, EZone zone) {
    const std::optional<std::chrono::milliseconds> taken = TimeTaken(run);
    return fmt::format("{}: {}{}{}", FormatMoment(run.started ? run.started : run.due, zone),
                       FormatOutcome(run), taken ? " after " + FormatSpan(*taken) : "",
                       run.outputError.empty() ? "" : "; its output is cut: " + run.outputError);
}

using TLine = std::function<void(std::string_view label, const std::string& value)>;

// Each option after its name, as it is typed.
void ShowOptions(const TJob& job, const TLine& line) {
    for (const TJobOption& option : cJobOptions) {
        if (option.name == cTaskOption || option.name == cShellOption)
            continue;
        for (const std::string& value : option.values(job))
            line(fmt::format("--{}", option.name), value);
    }
}

void ShowSchedule(const TTaskEntry& task, const TLine& line) {
    const CSchedule schedule(task);
    if (!schedule.HasCalendar()) {
        line("Every", FormatPeriod(task.period));
        return;
    }
    line("Calendar", Describe(schedule.Expression()));
    line("Zone", schedule.Zone().Name());
}

void ShowProgram(const TCommon& common, const TTaskEntry& task, const TLine& line) {
    const std::string real = RealProgram(common.store.directory, task.program);
    line("Program", real);
    if (real != task.program)
        line("Through", task.program);
    line("Parameter", task.parameter);
}

}  // namespace

TExitStatus ShowTask(const TCommon& common, const std::string& name, COutput& output) {
    const TTable table = CStore(common.store).Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw NoTask(common, name, table);
    const TTime now = Now();
    const TTaskState state = StateOf(*task, CRunningTasks(common.store.directory), now);
    const std::string why = WhyNot(common, *task, state, now);
    const std::optional<TJob> job = FindJob(*task);
    const std::vector<TRunRecord> runs = LastRuns(common, name);
    const std::vector<TTime> owed = OwedTimes(common, name);
    const std::string lastOutput = LastOutput(common, name);
    if (common.json) {
        nlohmann::ordered_json json = JsonOfTask(*task);
        json["real_program"] = JsonOfString(ProgramOf(common.store.directory, *task));
        if (job)
            AddJob(json, *job);
        json["next_time"] = FormatIsoTime(task->next);
        json["last_time"] = JsonOfLast(task->last);
        json["state"] = state.Name();
        json["processes"] = state.processes;
        json["why_not_running"] = why.empty() ? nlohmann::ordered_json() : JsonOfString(why);
        json["owed"] = nlohmann::ordered_json::array();
        for (const TTime due : owed)
            json["owed"].push_back(FormatIsoTime(due));
        json["last_runs"] = nlohmann::ordered_json::array();
        for (const TRunRecord& run : runs)
            json["last_runs"].push_back(JsonOf(run));
        json["last_output"] =
            lastOutput.empty() ? nlohmann::ordered_json() : JsonOfString(lastOutput);
        output.Raw(Document({{"task", json}}));
        return cDone;
    }
    const auto line = [&](std::string_view label, const std::string& value) {
        output.Line(output.Coloured(fmt::format("{:<13}", label), EColour::cBold) +
                    Show(value).string);
    };
    line("Name", task->name);
    line("State", state.Describe());
    if (job) {
        line(job->shell ? "Shell" : "Command", FormatCommand(common.store.directory, *task));
        ShowOptions(*job, line);
    } else {
        ShowProgram(common, *task, line);
    }
    line("Next due", task->next == cNever ? "at the next startup"
                                          : TimeAndDistance(task->next, now, common.zone));
    line("Last launch",
         task->last == TTime() ? "never" : TimeAndDistance(task->last, now, common.zone));
    ShowSchedule(*task, line);
    if (!why.empty())
        line("Not running", why);
    for (const TTime due : owed)
        line("Owed",
             fmt::format("the launch due {}; it is made as soon as the system has a process "
                         "for it",
                         FormatTime(due, common.zone)));
    for (const TRunRecord& run : runs)
        line(&run == runs.data() ? "Last runs" : "", FormatRun(run, common.zone));
    if (!lastOutput.empty())
        line("Last output", lastOutput);
    return cDone;
}

}  // namespace vxsched
