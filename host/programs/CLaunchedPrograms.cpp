#include "host/programs/CLaunchedPrograms.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <system_error>
#include <utility>
#include <vector>

#include <vxsched/Error.h>
#include "base/InSeconds.h"
#include "base/SignalName.h"
#include "host/CHostLog.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "runs/HistoryReader.h"
#include "runs/RunEnd.h"
#include "runs/RunningRuns.h"

static std::string DescriptionOf(const TRunRecord& run) {
    return fmt::format("{}: {} \"{}\"", run.task ? fmt::format("task \"{}\"", *run.task) : "a task",
                       run.program.empty() ? "an empty path" : run.program, run.parameter);
}

CLaunchedPrograms& CLaunchedPrograms::Instance() {
    static CLaunchedPrograms instance;
    return instance;
}

CLaunchedPrograms::CLaunchedPrograms() : wakeDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wakeDescriptor.IsOpen())
        throw std::system_error(errno, std::generic_category(),
                                "cannot create an event descriptor");
}

void CLaunchedPrograms::RecordIn(CRunHistory* runHistory) {
    const std::lock_guard<std::mutex> lock(mutex);
    history = runHistory;
}

void CLaunchedPrograms::Launched(const TRunRecord& run, pid_t child, ELaunchedChild kind) {
    LogInfo(fmt::format("started process {} for {}", run.process, DescriptionOf(run)));
    const std::lock_guard<std::mutex> lock(mutex);
    ++launches;
    programs[child] = {.run = run, .launched = std::chrono::steady_clock::now(), .kind = kind};
}

bool CLaunchedPrograms::RecordDead() {
    const std::lock_guard<std::mutex> lock(mutex);
    return RecordDeadRuns();
}

std::vector<TRunRecord> CLaunchedPrograms::TakeLostRuns() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(lostRuns, {});
}

void CLaunchedPrograms::RetryMade(const TRunRecord& lost) {
    const std::lock_guard<std::mutex> lock(mutex);
    retriedRuns.insert(lost.id);
    RecordDeadRuns();
}

void CLaunchedPrograms::LaunchFailed(const TRunRecord& run) {
    LogError(fmt::format("cannot start {}: {}, for {}",
                         run.program.empty() ? "an empty path" : run.program, run.error,
                         DescriptionOf(run)));
    const std::lock_guard<std::mutex> lock(mutex);
    ++launches;
    Record(run);
}

void CLaunchedPrograms::LaunchMissed(const TRunRecord& run) {
    LogWarning(fmt::format("missed while the machine slept, or its clock was set{}: {}",
                           run.missed == 0 ? "" : fmt::format(", {} times", run.missed),
                           DescriptionOf(run)));
    const std::lock_guard<std::mutex> lock(mutex);
    Record(run);
}

void CLaunchedPrograms::LaunchCancelled(const TRunRecord& run) {
    LogNotice(fmt::format("the launch that is owed for {} is cancelled: {}", DescriptionOf(run),
                          run.error));
    const std::lock_guard<std::mutex> lock(mutex);
    Record(run);
    if (history != nullptr)
        history->Sync();
}

void CLaunchedPrograms::WaitedFor(pid_t process, pid_t result, int status, const rusage& usage) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = programs.find(process);
    if (found == programs.end())
        return;
    if (result == process) {
        Ended(found->second, status, usage);
        programs.erase(found);
    } else {
        found->second.wasWaitedFor = true;
    }
    // Its SIGCHLD may have been read before the program could be collected.
    static_cast<void>(eventfd_write(wakeDescriptor.Get(), 1));
}

void CLaunchedPrograms::CollectFinished() {
    eventfd_t ignored = 0;
    static_cast<void>(eventfd_read(wakeDescriptor.Get(), &ignored));
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto next = programs.begin(); next != programs.end();) {
        const auto current = next++;
        TProgram& program = current->second;
        if (!program.wasWaitedFor)
            continue;
        // Not waitpid(): that is interposed and calls WaitedFor().
        int status = 0;
        rusage usage{};
        const pid_t result = wait4(current->first, &status, WNOHANG, &usage);
        if (result == 0)
            continue;
        if (result == current->first) {
            Ended(program, status, usage);
        } else {
            LogWarning(fmt::format("process {} ended, but something else collected its status, {}",
                                   current->first, DescriptionOf(program.run)));
            program.run.outcome = TRunRecord::cUnknown;
            program.run.ended = CurrentMoment();
            RecordEnd(program);
        }
        programs.erase(current);
    }
    if (getpid() == 1)
        CollectOrphans();
}

// Up to the first process that the add-in has yet to wait for; WaitedFor() has this called again.
void CLaunchedPrograms::CollectOrphans() {
    const std::unique_lock<std::mutex> noLaunch(launching, std::try_to_lock);
    siginfo_t ended{};
    while (noLaunch && waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid != 0 && !programs.contains(ended.si_pid))
        wait4(ended.si_pid, nullptr, WNOHANG, nullptr);
}

void CLaunchedPrograms::LeaveRunning() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& [child, program] : programs) {
        LogNotice(fmt::format("leaving process {} running, {}", program.run.process,
                              DescriptionOf(program.run)));
        program.run.outcome = TRunRecord::cLeftRunning;
        RecordEnd(program);
    }
    if (!programs.empty())
        LogNotice(fmt::format("leaving {} launched program(s) running", programs.size()));
    programs.clear();
}

std::size_t CLaunchedPrograms::Count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return programs.size();
}

std::size_t CLaunchedPrograms::CountLaunches() {
    const std::lock_guard<std::mutex> lock(mutex);
    return launches;
}

void CLaunchedPrograms::Ended(TProgram& program, int status, const rusage& usage) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - program.launched;
    TRunRecord& run = program.run;
    RecordProgramEnd(run, status, usage);
    const std::string how = run.outcome == TRunRecord::cKilled
                                ? "was killed by " + SignalName(run.number)
                                : fmt::format("exited with status {}", run.number);
    const std::string message = fmt::format(
        "process {} {} after {:.1f} s (user {:.3f} s, system {:.3f} s, peak memory {} KiB), {}",
        run.process, how, time.count(), InSeconds(run.usage.user), InSeconds(run.usage.system),
        run.usage.peakMemory, DescriptionOf(run));
    if (run.outcome == TRunRecord::cExited && run.number == 0)
        LogInfo(message);
    else
        LogWarning(message);
    RecordEnd(program);
    if (program.kind == ELaunchedChild::cProgram || run.outcome != TRunRecord::cKilled)
        return;
    // It ends as its program does, or it was killed itself.
    RecordDeadRuns();
    if (program.kind == ELaunchedChild::cSilentRunner)
        RecordUnreported(run);
}

void CLaunchedPrograms::RecordEnd(const TProgram& program) {
    if (program.kind == ELaunchedChild::cProgram)
        Record(program.run);
}

// Whether the job of a run whose runner was killed has it attempted again. The next attempt may have
// been launched by a host that was killed before it could record this one.
bool CLaunchedPrograms::IsLost(const TRunRecord& run) const {
    try {
        return !run.job.empty() && !retriedRuns.contains(run.id) &&
               run.attempt <= static_cast<int>(vxsched::ReadJobLine(run.job).retries) &&
               !vxsched::HasLaterAttempt(".", run);
    } catch (const vxsched::CJobError&) {
        return false;
    }
}

bool CLaunchedPrograms::RecordDeadRun(TRunRecord run) {
    // A runner may have been killed after it had recorded its run.
    if (vxsched::IsRecorded(".", run.id))
        return true;
    if (IsLost(run)) {
        lostRuns.push_back(run);
        static_cast<void>(eventfd_write(wakeDescriptor.Get(), 1));
        return false;
    }
    if (!run.job.empty()) {
        LogWarning(
            fmt::format("a runner was killed before its program began, {}", DescriptionOf(run)));
        run.job.clear();
    } else {
        const char* const what =
            run.outcome == TRunRecord::cRunnerDied ? "was killed" : "could not record its end";
        LogWarning(
            fmt::format("the runner of process {} {}, {}", run.process, what, DescriptionOf(run)));
    }
    const bool isRecorded = Record(run);
    if (isRecorded)
        retriedRuns.erase(run.id);
    return isRecorded;
}

bool CLaunchedPrograms::RecordDeadRuns() {
    lostRuns.clear();  // they are found again
    return RecordDeadRunners([this](const TRunRecord& run) { return RecordDeadRun(run); });
}

// A runner was killed that has not reported its program, so that it may have left no record of it.
void CLaunchedPrograms::RecordUnreported(TRunRecord run) {
    const auto isIt = [&](const TRunRecord& one) {
        return one.started >= run.started && RunnerOf(one.id) == run.process;
    };
    try {
        const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", run.task).runs;
        if (std::any_of(runs.begin(), runs.end(), isIt))
            return;
    } catch (const vxsched::CError&) {
        // One record too many is better than none.
    }
    run.outcome = TRunRecord::cRunnerDied;
    run.id = MakeOwnRunId();
    Record(run);
}

bool CLaunchedPrograms::Record(const TRunRecord& run) {
    return history == nullptr || history->Add(run);
}
