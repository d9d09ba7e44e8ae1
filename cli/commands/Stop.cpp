// stop: ends the runs of a task.

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/RunningPrograms.h>
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "base/Users.h"
#include "cli/commands/Commands.h"
#include "cli/commands/RequireTask.h"
#include "cli/output/RunFormat.h"
#include "control/HostConnection.h"
#include "control/Messages.h"
#include "runs/HistoryReader.h"
#include "runs/RunEnd.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

// The runner kills what has not ended ten seconds after it was asked to.
constexpr std::chrono::seconds cLongestEnd(30);

std::string OutcomeOf(const TCommon& common, const std::string& run) {
    TRunRecord end = FindEnd(common.store.directory, run);
    end.stoppedBy.clear();  // the line says that it is stopped
    return FormatOutcome(end);
}

void WaitForEnd(const TCommon& common, const TRunning& running) {
    if (!WaitForRun(common.store.directory, running.run.id, cLongestEnd))
        throw MakeError(
            EError::cFailed,
            "process {} of \"{}\" did not end: its runner, process {}, does not answer, "
            "or the system does not end what it has killed",
            running.run.process, running.run.task.value_or(""), running.runner);
}

// Has the host stop a run of a task. Returns why it has not; empty if it has.
std::string StopByHost(const TCommon& common, const std::string& name, const TRunning& running) {
    const THostReply reply =
        AskHost(common.store.directory,
                EncodeStopRequest({running.run.task.value_or(name), running.run.id}));
    switch (reply.outcome) {
        case THostReply::cNotReached:
            return fmt::format("there is no host to do it ({}: {})", cControlSocket,
                               std::strerror(reply.error));
        case THostReply::cTurnedAway:
            return fmt::format("the host has turned the request away: {}",
                               std::strerror(reply.error));
        case THostReply::cUnanswered:
            return fmt::format("the host has not answered: {}", std::strerror(reply.error));
        case THostReply::cAnswered:
            break;
    }
    const std::optional<TStopAnswer> answer = DecodeStopAnswer(reply.line);
    if (!answer)
        return "the host has not answered in a way that this program knows";
    return answer->error == 0 ? "" : "the host refuses it: " + answer->message;
}

// The user whose runner a run has, who has made its file.
std::string UserOf(const TCommon& common, const TRunning& running) {
    struct stat status {};
    const auto path =
        std::filesystem::path(common.store.directory) / cRunningDirectory / running.run.id;
    return stat(path.c_str(), &status) == 0 ? FindUser(status.st_uid).name : "?";
}

// Ends a run. Its runner may be another user's, or in another PID namespace, as that of the host.
void TerminateOne(const TCommon& common, const std::string& name, const TRunning& running) {
    const int error = Terminate(common.store.directory, running, common.caller);
    if (error == 0)
        return;
    const std::string what = fmt::format("cannot stop process {} of \"{}\"", running.run.process,
                                         running.run.task.value_or(""));
    if (error != EPERM && error != EXDEV)
        throw SystemError(what, error);
    const std::string why = StopByHost(common, name, running);
    if (why.empty())
        return;
    if (error == EXDEV)
        throw MakeError(EError::cNoAccess,
                        "{}: it runs in another PID namespace, and {}; run vxsched stop there",
                        what, why);
    throw MakeError(
        EError::cNoAccess,
        "{}: its runner belongs to user {}, and {}; run vxsched stop as that user or as "
        "the superuser, or start the host",
        what, UserOf(common, running), why);
}

// One that cannot be terminated keeps no other one from it.
void TerminateAll(const TCommon& common, const std::string& name,
                  const std::vector<TRunning>& runs) {
    std::optional<CError> failure;
    for (const TRunning& running : runs) {
        try {
            TerminateOne(common, name, running);
        } catch (const CError& error) {
            failure = error;
        }
    }
    if (failure)
        throw CError(*failure);
}

// A run that was launched before its task was renamed has the former name. One whose name a task has
// is of that task, also where two tasks launch the same program.
std::vector<TRunning> FindRunsOfFormerNames(const TCommon& common, const std::string& name) {
    const TTable table = CStore(common.store).Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        return {};
    const std::vector<pid_t> processes = FindRunning(LaunchedPath(task->program), task->parameter);
    return FindRunningRuns(common.store.directory, [&](const TRunRecord& run) {
        return run.task && table.Find(*run.task) == nullptr &&
               std::find(processes.begin(), processes.end(), run.process) != processes.end();
    });
}

}  // namespace

TExitStatus Stop(const TCommon& common, const std::string& name, COutput& output) {
    std::vector<TRunning> runs = FindRunningRuns(common.store.directory, name);
    if (runs.empty())
        runs = FindRunsOfFormerNames(common, name);
    if (runs.empty()) {
        if (ReadHistory(common.store.directory, name).runs.empty())
            RequireTask(common, name);
        throw MakeError(EError::cRefused, "no run of \"{}\" is under way; see vxsched history {}",
                        name, ShellWord(name));
    }
    if (!common.dryRun)
        TerminateAll(common, name, runs);
    for (const TRunning& running : runs) {
        if (!common.dryRun)
            WaitForEnd(common, running);
        output.Line(
            Show(fmt::format("{} {}, process {}{}", common.dryRun ? "would stop" : "stopped", name,
                             running.run.process,
                             common.dryRun ? "" : ": " + OutcomeOf(common, running.run.id)))
                .string);
    }
    return cDone;
}

}  // namespace vxsched
