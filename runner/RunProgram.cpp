#include "runner/RunProgram.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "base/DisplayText.h"
#include "base/Processes.h"
#include "base/ShellWord.h"
#include "base/Users.h"
#include "base/WriteAll.h"
#include "jobs/JobLine.h"
#include "runner/CCopy.h"
#include "runner/CJob.h"
#include "runner/CLaunchError.h"
#include "runner/CNextRunner.h"
#include "runner/COverlapLock.h"
#include "runner/EndBySignal.h"
#include "runner/Execute.h"
#include "runner/Execution.h"
#include "runner/Pause.h"
#include "runner/TellOfEnd.h"
#include "runs/COutputFile.h"
#include "runs/CRunHistory.h"
#include "runs/CRunningFile.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"
#include "store/Layout.h"

using vxsched::cDefaultBackoff;
using vxsched::TJob;

// A reader of the host's log that has stalled does not hold up a run for longer than this.
static constexpr int cStall = 1000;  // milliseconds

// Between two checks whether another run of the task has ended.
static constexpr std::chrono::milliseconds cOthersInterval(200);

static constexpr int cIgnored[] = {SIGPIPE, SIGHUP, SIGINT, SIGXFSZ};

void IgnoreSignals() {
    for (const int ignored : cIgnored)
        std::signal(ignored, SIG_IGN);
}

void Warn(const std::string& message) {
    const std::string line = ("vxrun: " + message).substr(0, PIPE_BUF - 1) + '\n';
    pollfd log{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&log, 1, cStall) == 1)
        static_cast<void>(WriteAll(STDERR_FILENO, line));
}

namespace {

// A program that gets too much with its task's name and due time is launched without them. `launch`
// returns TExecuted.
template <typename Launch>
TExecuted LaunchForTask(TExecution& execution, const Launch& launch) {
    const TExecuted executed = launch();
    if (executed.error != E2BIG)
        return executed;
    std::erase_if(execution.environment, [](const std::string& variable) {
        return variable.starts_with("VXSCHED_TASK=") || variable.starts_with("VXSCHED_DUE=");
    });
    return launch();
}

// `arguments` are those of a job, or the single one of another program.
TRunRecord Describe(const std::string& program, const std::string& arguments,
                    const TRunRequest& request) {
    TRunRecord run;
    run.started = CurrentMoment();
    run.trigger = request.trigger;
    run.attempt = request.attempt;
    run.retryOf = request.retryOf;
    run.program = program;
    run.parameter = arguments;
    if (const char* const task = std::getenv("VXSCHED_TASK"))
        run.task = task;
    if (const char* const due = std::getenv("VXSCHED_DUE"))
        run.due = std::chrono::sys_seconds(std::chrono::seconds(std::strtoll(due, nullptr, 10)));
    run.id = MakeRunId(*run.started, FindLatestOutput(run.task));
    return run;
}

// False if the launcher is gone.
bool Report(int pipe, const TLaunchReport& report) {
    const bool isReported = write(pipe, &report, sizeof report) == sizeof report;
    close(pipe);
    return isReported;
}

bool ReportLaunch(int pipe, pid_t process, const std::string& run) {
    TLaunchReport report{.error = 0, .process = process, .run = {}, .reason = {}};
    run.copy(report.run, sizeof report.run - 1);
    return Report(pipe, report);
}

bool ReportError(int pipe, int error, const std::string& reason) {
    TLaunchReport report{.error = error, .process = 0, .run = {}, .reason = {}};
    reason.copy(report.reason, sizeof report.reason - 1);
    return Report(pipe, report);
}

// Executes the program in this process, as the system has no room for one more, but has made this one.
// Its launcher then waits for it and records its end; its output is not kept, and no limit of a job is.
// Returns what failed before the launcher was told.
TExecuted Become(const TRunRequest& request, const CCommand& command, TExecution& execution) {
    const TExecuted entered = Enter(execution);
    if (entered.error != 0)
        return entered;
    if (request.copy == TRunRequest::cPlain)
        dup2(STDOUT_FILENO, STDERR_FILENO);
    setsid();
    for (const int ignored : cIgnored)
        std::signal(ignored, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ReportLaunch(request.report, getpid(), "");
    close_range(STDERR_FILENO + 1, ~0U, 0);
    LaunchForTask(execution, [&] {
        execve(command.Program(), command.Arguments(), PointersTo(execution.environment).data());
        return TExecuted{.step = EStep::cProgram, .error = errno};
    });
    _exit(cNotStartedStatus);
}

// Ends this process as its program has ended, for whoever waits for it.
[[noreturn]] void EndAs(const TRunRecord& run) {
    if (run.outcome == TRunRecord::cNotStarted)
        _exit(cNotStartedStatus);
    if (run.outcome == TRunRecord::cExited)
        _exit(run.number);
    EndBySignal(run.number);
}

// The launcher records the failure, if there is one that can. An empty reason is that of `error`.
void ReportFailure(const TRunRequest& request, TRunRecord& run, int error,
                   const std::string& reason, CRunHistory& history) {
    if (ReportError(request.report, error, reason))
        return;
    RecordNotStarted(run, reason.empty() ? std::strerror(error) : reason);
    history.Add(run);
}

// For the launcher, to which EAGAIN means that the system has made no process at all.
int ErrorOf(const TExecuted& executed) {
    return executed.error == EAGAIN ? EBUSY : executed.error;
}

int EndNotStarted(const TRunRequest& request, TRunRecord& run, int error, const std::string& reason,
                  CRunHistory& history) {
    if (request.report == -1)
        Warn(reason);
    ReportFailure(request, run, error, reason, history);
    return cNotStartedStatus;
}

// The launcher has nothing to wait for. A record before the report: a kill in between leaves one of it.
int Skip(const TRunRequest& request, TRunRecord& run, const std::string& underWay,
         CRunHistory& history) {
    run.output.clear();
    run.job.clear();
    RecordSkipped(run, underWay);
    history.Add(run);
    ReportLaunch(request.report, getpid(), run.id);
    return 0;
}

// The end of a program that cannot be recorded stays in the file of its run, for whoever finds it.
void RecordEnd(const TRunRecord& run, CRunningFile& running, CRunHistory& history) {
    running.Finish(run);
    if (history.Add(run))
        running.Remove();
    running.Close();
}

// Keeps what is written after the program's end: in a child of this process, whose parent waits for the
// run, or in this one if the system has no room for a child.
void KeepLaterOutput(CJob& job, COutputFile& file, const TRunRecord& run) {
    bool isChild = false;
    if (job.HasOutput()) {
        const pid_t child = fork();
        isChild = child == 0;
        if (child <= 0)
            job.KeepOutput();
    }
    file.Close();
    RemoveOldOutputs(run.task);
    if (isChild)
        _exit(0);
}

// Without a store, as for somebody who tries a job by hand, nothing is kept of it.
using TWarning = void (*)(const std::string& message);
TWarning FindWarning() {
    if (access(vxsched::cFilesDirectory, F_OK) == 0)
        return Warn;
    Warn(fmt::format("there is no {}/ here: the run is not recorded", vxsched::cFilesDirectory));
    return [](const std::string& /*message*/) {};
}

TExecution FindExecution(const TJob* job) {
    if (job == nullptr)
        return InheritedExecution();
    return ExecutionOf(*job, std::getenv("VXSCHED_TASK"), std::getenv("VXSCHED_DUE"));
}

void LimitJob(CJob& process, const TJob* job) {
    if (job == nullptr)
        return;
    process.ReachAll();
    if (job->timeout)
        process.LimitTime(*job->timeout, job->killAfter.value_or(cDefaultKillAfter));
}

void JudgeEnd(TRunRecord& run, const TJob* job) {
    if (job == nullptr || job->success.empty())
        return;
    run.success =
        run.outcome == TRunRecord::cExited &&
        std::find(job->success.begin(), job->success.end(), run.number) != job->success.end();
}

// What all attempts of a run have in common.
struct TAttempts {
    const TRunRequest& request;
    const CCommand& command;
    const TJob* job;  // or null
    TExecution& execution;
    CRunHistory& history;
    TWarning warn;
    CCopy* copy;  // or null
    CFollower& follower;
};

// Whether the launcher is told of the launch before the program is started: it does not wait for that.
bool IsReportedBefore(const TAttempts& attempts, const TRunRecord& run,
                      const CRunningFile& running) {
    return run.attempt > 1 || !run.underWay.empty() ||
           (attempts.job != nullptr && attempts.job->randomDelay && run.trigger != cManual &&
            running.Error().empty());
}

std::chrono::milliseconds PauseBefore(const TRunRecord& run, const TJob& job) {
    if (run.attempt > 1)
        return PauseAfter(run.attempt - 1, job.backoff.value_or(cDefaultBackoff), MakeRandom());
    const std::chrono::duration<double, std::milli> longest =
        job.randomDelay.value_or(std::chrono::seconds(0));
    return std::chrono::floor<std::chrono::milliseconds>(MakeRandom() * longest);
}

// Until no other run of the task is under way. As Pause().
std::optional<uid_t> PauseForOthers(TRunRecord& run) {
    std::optional<uid_t> stopper;
    while (!run.underWay.empty() && !COverlapLock::FindOthers(run).empty() && !stopper)
        stopper = Pause(cOthersInterval);
    return stopper;
}

// False if it was stopped meanwhile, which `run` then says.
bool WaitForTurn(TRunRecord& run, const TJob& job) {
    std::optional<uid_t> stopper = PauseForOthers(run);
    run.underWay.clear();
    if (!stopper)
        stopper = Pause(PauseBefore(run, job));
    run.started = CurrentMoment();
    if (!stopper)
        return true;
    run.job.clear();
    RecordNotStarted(run, "it was stopped before it began");
    run.stoppedBy = FindUser(*stopper).name;
    return false;
}

// The launcher does not wait for it.
void TellOfFailedLaunch(const TAttempts& attempts, TRunRecord& run, const std::string& reason) {
    if (attempts.job == nullptr || !IsEndTold(*attempts.job))
        return;
    RecordNotStarted(run, reason);
    const bool isApart = attempts.request.report != -1;
    if (isApart && fork() != 0)
        return;
    attempts.follower.HandOver();
    TellOfEnd(*attempts.job, run, attempts.execution, attempts.warn);
    if (isApart)
        _exit(0);
}

// Returns when the program has ended; `file`, which stays empty if it was not started, then has its
// output. A launcher that waits for the report records one that is not started: this process then ends.
void Execute(const TAttempts& attempts, TRunRecord& run, CRunningFile& running, CJob& process,
             std::optional<COutputFile>& file, bool isReported) {
    const TRunRequest& request = attempts.request;
    const CCommand& command = attempts.command;
    const TJob* const job = attempts.job;
    TExecution& execution = attempts.execution;
    LimitJob(process, job);
    if (!run.job.empty()) {
        run.job.clear();
        running.Update(run);
    }
    TExecuted executed = LaunchForTask(execution, [&] {
        return process.Launch(execution, command.Program(), command.Arguments());
    });
    if (executed.error != 0) {
        // To the launcher of a job the program that failed is this one.
        const std::string reason =
            job == nullptr ? "" : Describe(executed, execution, command.Program());
        if (isReported) {
            attempts.warn(reason);
            return RecordNotStarted(run, reason);
        }
        // Before the report: a kill in between must not leave two records of it.
        running.Remove();
        if (executed.step == EStep::cProcess && request.report != -1)
            executed = Become(request, command, execution);
        const int status = EndNotStarted(request, run, ErrorOf(executed), reason, attempts.history);
        TellOfFailedLaunch(attempts, run, reason);
        _exit(status);
    }
    run.process = process.Process();
    if (const auto stat = vxsched::ReadProcessStat(vxsched::ProcessDirectory(run.process)))
        run.processStart = stat->start;
    running.Update(run);
    // The launcher waits for it with the store mutex held: nothing else comes before.
    // Without its file nobody could find out that the run has ended.
    if (!isReported)
        ReportLaunch(request.report, run.process, running.Error().empty() ? run.id : "");
    file.emplace(MakeOutputFile(run.task, run.id, request.outputSize, attempts.warn));
    process.KeepIn(*file);
    process.WaitForEnd(run);
    JudgeEnd(run, job);
}

// Has the file of the run say, until its program is launched, that it has not begun: a host then knows
// that a run whose runner was killed has to be attempted again, and how.
void NoteJob(TRunRecord& run, const TJob* job) {
    if (job != nullptr && (job->retries > 0 || job->randomDelay || !run.underWay.empty()))
        run.job = vxsched::JobLine(*job);
}

bool IsToBeRetried(const TRunRecord& run, const TJob* job) {
    return job != nullptr && run.attempt <= static_cast<int>(job->retries) &&
           run.stoppedBy.empty() && !HasNoFailure(run) &&
           (run.outcome != TRunRecord::cNotStarted || run.attempt > 1);
}

// Returns in the copy of this process that makes the next attempt only.
CNextRunner MakeAttempt(const TAttempts& attempts, TRunRecord& run, CRunningFile& running) {
    CJob process(attempts.copy, attempts.follower);
    std::optional<COutputFile> file;
    const bool isReported = IsReportedBefore(attempts, run, running);
    if (isReported && run.attempt == attempts.request.attempt)
        ReportLaunch(attempts.request.report, getpid(), run.id);
    if (!isReported || WaitForTurn(run, *attempts.job))
        Execute(attempts, run, running, process, file, isReported);
    CNextRunner next;
    const pid_t copy = IsToBeRetried(run, attempts.job) ? next.Fork() : -1;
    if (copy == 0)
        return next;
    if (copy != -1)
        next.WaitForBegin();
    RecordEnd(run, running, attempts.history);
    if (copy != -1) {
        next.Release();
        attempts.follower.HandOver();
    } else {
        // Whoever follows the run finds its record at the end of its output.
        attempts.follower.End();
    }
    if (file)
        KeepLaterOutput(process, *file, run);
    if (copy == -1 && attempts.job != nullptr && IsEndTold(*attempts.job))
        TellOfEnd(*attempts.job, run, attempts.execution, attempts.warn);
    // Whoever has launched this process as a program waits for all attempts.
    if (copy != -1 && attempts.request.report == -1)
        next.EndAsIt();
    EndAs(run);
}

void WarnWithoutFile(const CRunningFile& running, const TRunRecord& run, TWarning warn) {
    if (!running.Error().empty())
        warn(fmt::format("cannot make the file of run {}: {}. vxsched stop does not find the run.",
                         run.id, running.Error()));
}

// The id of the run because of which this one is skipped; empty if it is not. One that is to wait for
// another has that in `underWay` then; one that takes the place of others has them stopped.
std::optional<std::string> FindHindrance(TRunRecord& run, TJob::EOverlap overlap) {
    for (const vxsched::TRunning& other : COverlapLock::FindOthers(run)) {
        const bool isWaiting = !other.run.underWay.empty();
        if (overlap == TJob::cSkip || (overlap == TJob::cQueue && isWaiting))
            return other.run.id;
        if (overlap == TJob::cReplace && vxsched::Terminate(".", other, getuid()) != 0)
            return other.run.id;
        run.underWay = other.run.id;
    }
    return {};
}

}  // namespace

int RunProgram(const TRunRequest& request, const CCommand& command, const TJob* job) {
    TRunRecord run = Describe(command.Program(), command.ArgumentsAsText(job != nullptr), request);
    run.output = OutputPathOf(run.task, run.id);
    const TWarning warn = FindWarning();
    CRunHistory history(request.historySize, warn);
    TExecution execution;
    try {
        execution = FindExecution(job);
    } catch (const CLaunchError& error) {
        return EndNotStarted(request, run, error.Error(), error.what(), history);
    }
    std::optional<COverlapLock> turn;
    if (job != nullptr && job->overlap != TJob::cAllow && run.trigger != cManual) {
        turn.emplace();
        if (const std::optional<std::string> underWay = FindHindrance(run, job->overlap))
            return Skip(request, run, *underWay, history);
    }
    NoteJob(run, job);
    auto running = std::make_unique<CRunningFile>(run);
    turn.reset();
    WarnWithoutFile(*running, run, warn);
    // Without its file nobody finds a run that waits.
    if (!run.underWay.empty() && !running->Error().empty())
        return Skip(request, run, run.underWay, history);
    std::optional<CCopy> copy;
    if (request.copy == TRunRequest::cPlain)
        copy.emplace();
    else if (request.copy == TRunRequest::cPrefixed)
        copy.emplace(vxsched::Show(run.task.value_or("?")).string + ": ");
    CFollower follower(request.follower);
    const TAttempts attempts{
        request, command, job, execution, history, warn, copy ? &*copy : nullptr, follower};
    for (;;) {
        CNextRunner here = MakeAttempt(attempts, run, *running);
        run = MakeRetry(run);
        run.output = OutputPathOf(run.task, run.id);
        NoteJob(run, job);
        running = std::make_unique<CRunningFile>(run);
        WarnWithoutFile(*running, run, warn);
        here.Begin();
    }
}

int RefuseLine(const TRunRequest& request, const std::vector<std::string>& arguments,
               const std::string& reason) {
    Warn(reason);
    const bool isLine = request.report != -1 || arguments.size() == 1;
    TRunRecord run = Describe(vxsched::cRunnerProgram,
                              isLine ? arguments.back() : vxsched::JoinWords(arguments), request);
    CRunHistory history(request.historySize, FindWarning());
    ReportFailure(request, run, EINVAL, reason, history);
    return cUsageStatus;
}
