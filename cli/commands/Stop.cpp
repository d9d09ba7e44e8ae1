// stop: ends the runs of a task.

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/RequireTask.h"
#include "cli/output/RunFormat.h"
#include "runs/CRunningFile.h"
#include "runs/HistoryReader.h"
#include "runs/RunEnd.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

// The runner kills what has not ended ten seconds after it was asked to.
constexpr std::chrono::seconds cLongestEnd(30);

std::string OutcomeOf(const TCommon& common, const std::string& run) {
    return FormatOutcome(FindEnd(common.store.directory, run));
}

void WaitForEnd(const TCommon& common, const TRunning& running) {
    if (!WaitForRun(common.store.directory, running.run.id, cLongestEnd))
        throw MakeError(
            EError::cFailed,
            "process {} of \"{}\" did not end: its runner, process {}, does not answer, "
            "or the system does not end what it has killed",
            running.run.process, running.run.task.value_or(""), running.runner);
}

CError FailureOf(const TRunning& running, int error) {
    const std::string what = fmt::format("cannot stop process {} of \"{}\"", running.run.process,
                                         running.run.task.value_or(""));
    if (error == EXDEV)
        return CError(EError::cNoAccess,
                      what + ": it runs in another PID namespace; run vxsched stop there");
    return SystemError(what, error);
}

// One that cannot be terminated keeps no other one from it.
void TerminateAll(const TCommon& common, const std::vector<TRunning>& runs) {
    const TRunning* failed = nullptr;
    int reason = 0;
    for (const TRunning& running : runs) {
        if (const int error = Terminate(common.store.directory, running); error != 0) {
            failed = &running;
            reason = error;
        }
    }
    if (failed != nullptr)
        throw FailureOf(*failed, reason);
}

}  // namespace

TExitStatus Stop(const TCommon& common, const std::string& name, COutput& output) {
    const std::vector<TRunning> runs = FindRunningRuns(common.store.directory, name);
    if (runs.empty()) {
        if (ReadHistory(common.store.directory, name).runs.empty())
            RequireTask(common, name);
        throw MakeError(EError::cRefused, "no run of \"{}\" is under way; see vxsched history {}",
                        name, name);
    }
    if (!common.dryRun)
        TerminateAll(common, runs);
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
