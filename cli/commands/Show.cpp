#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/TaskState.h"
#include "cli/output/Json.h"
#include "cli/output/RunFormat.h"
#include "cli/time/PeriodFormat.h"
#include "runs/HistoryReader.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace {

// Why its program is not running at this moment.
std::string WhyNot(const TCommon& common, const TTaskEntry& task, const TTaskState& state,
                   TTime now) {
    if (!state.processes.empty())
        return "";
    TTaskEntry real = task;
    real.program = RealProgram(common.store.directory, task.program);
    const EProgram how = real.program == task.program ? EProgram::cAsNamed : EProgram::cThroughLink;
    for (const TValidationError& error : Validate(real, now, how)) {
        if (error.IsAboutProgram())
            return error.text;
    }
    if (task.paused)
        return fmt::format("it is paused; vxsched resume {}", task.name);
    const std::optional<TSchedulingProcess> scheduler =
        FindSchedulingProcess(common.store.directory);
    if (!scheduler)
        return "there is no scheduling process in this directory; start vxschedd";
    if (!scheduler->sharesStore)
        return fmt::format("the scheduling process {} runs in another IPC namespace",
                           scheduler->process);
    if (state.state == TTaskState::cOverdue)
        return fmt::format(
            "it is overdue, although process {} is there to start it; look at its "
            "log",
            scheduler->process);
    return fmt::format("it waits for its time, {}", FormatTime(task.next, common.zone));
}

std::string TimeAndDistance(TTime time, TTime now, EZone zone) {
    return fmt::format("{} ({}{})", FormatTime(time, zone), time > now ? "in " : "",
                       FormatDistance(time - now));
}

constexpr std::size_t cShownRuns = 5;

// The last ones, the youngest first.
std::vector<TRunRecord> LastRuns(const TCommon& common, const std::string& name) {
    std::vector<TRunRecord> runs = ReadHistory(common.store.directory, name).runs;
    std::reverse(runs.begin(), runs.end());
    runs.resize(std::min(runs.size(), cShownRuns));
    return runs;
}

// When it was started, or should have been, and what became of it.
std::string RunText(const TRunRecord& run, EZone zone) {
    const std::optional<std::chrono::milliseconds> taken = TimeTaken(run);
    return fmt::format("{}: {}{}", FormatMoment(run.started ? run.started : run.due, zone),
                       OutcomeText(run), taken ? " after " + FormatSpan(*taken) : "");
}

}  // namespace

int ShowTask(const TCommon& common, const std::string& name, COutput& output) {
    const TTable table = CStore(common.store).Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw CError(EError::cNotFound,
                     fmt::format("there is no task \"{}\"; vxsched list shows all", name));
    const TTime now = Now();
    const TTaskState state = StateOf(*task, CRunningPrograms(), now);
    const std::string why = WhyNot(common, *task, state, now);
    const std::string real = RealProgram(common.store.directory, task->program);
    const std::vector<TRunRecord> runs = LastRuns(common, name);
    if (common.json) {
        nlohmann::ordered_json json = JsonOfTask(*task);
        json["real_program"] = JsonOfText(real);
        json["next_time"] = FormatIsoTime(task->next);
        json["last_time"] = JsonOfLast(task->last);
        json["state"] = state.Word();
        json["processes"] = state.processes;
        json["why_not_running"] = why.empty() ? nlohmann::ordered_json() : JsonOfText(why);
        json["last_runs"] = nlohmann::ordered_json::array();
        for (const TRunRecord& run : runs)
            json["last_runs"].push_back(JsonOf(run));
        output.Raw(Document({{"task", json}}));
        return 0;
    }
    const auto line = [&](std::string_view what, const std::string& text) {
        output.Line(output.Coloured(fmt::format("{:<13}", what), EColour::cBold) + Show(text).text);
    };
    line("Name", task->name);
    line("State", state.Text());
    line("Program", real);
    if (real != task->program)
        line("Through", task->program);
    line("Parameter", task->parameter);
    line("Next start", TimeAndDistance(task->next, now, common.zone));
    line("Last start",
         task->last == TTime() ? "never" : TimeAndDistance(task->last, now, common.zone));
    line("Every", FormatPeriod(task->period));
    if (!why.empty())
        line("Not running", why);
    for (const TRunRecord& run : runs)
        line(&run == runs.data() ? "Last runs" : "", RunText(run, common.zone));
    return 0;
}

}  // namespace vxsched
