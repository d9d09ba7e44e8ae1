#include "runner/CJob.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <limits>
#include <vector>

#include "base/Processes.h"
#include "base/Spawn.h"
#include "base/Users.h"
#include "runner/Descendants.h"

using TClock = std::chrono::steady_clock;

// Between two checks whether a process of the terminated group is left.
static constexpr std::chrono::milliseconds cGroupInterval(50);
// A killed process that waits for a disk or a file server does not end before that has answered.
static constexpr std::chrono::seconds cDeathLimit(1);
// Of stopping what a fork bomb has made since the last one.
static constexpr int cMostRounds = 100;

CJob::CJob(CCopy* outputCopy, CFollower& outputFollower, std::chrono::milliseconds longestStop)
    : copy(outputCopy), follower(outputFollower), killAfter(longestStop) {
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGCHLD);
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    signals = CDescriptor(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
}

static void AdoptOrphans(bool adopts) {
    prctl(PR_SET_CHILD_SUBREAPER, adopts ? 1UL : 0UL);
}

// For what the program writes; returns its end of the pipe.
CDescriptor CJob::OpenPipe() {
    std::array<int, 2> ends{};
    if (!signals.IsOpen() || pipe2(ends.data(), O_CLOEXEC) == -1)
        return CDescriptor();
    pipe = CDescriptor(ends[0]);
    fcntl(pipe.Get(), F_SETFL, O_NONBLOCK);
    return CDescriptor(ends[1]);
}

TExecuted CJob::Launch(const TExecution& execution, const char* program, char* const arguments[]) {
    if (execution.IsPlain()) {
        const int error = Spawn(program, arguments, PointersTo(execution.environment).data());
        return {.step = IsForWantOfRoom(error) ? EStep::cProcess : EStep::cProgram, .error = error};
    }
    const CDescriptor theirs = OpenPipe();
    if (!theirs.IsOpen())
        return {.step = EStep::cProcess, .error = errno};
    // Or it could write there, but not open /dev/stdout.
    if (execution.identity)
        static_cast<void>(
            !fchown(theirs.Get(), execution.identity->user, execution.identity->group));
    AdoptOrphans(true);
    const TExecuted executed = Execute(execution, program, arguments, theirs.Get(), &process);
    launched = TClock::now();
    if (executed.error != 0)
        AdoptOrphans(false);
    return executed;
}

int CJob::Spawn(const char* program, char* const arguments[], char* const environment[]) {
    const CDescriptor theirs = OpenPipe();
    if (!theirs.IsOpen())
        return errno;
    CSpawnAttributes attributes;
    attributes.ResetSignals();
    attributes.LeadSession();
    CSpawnActions actions;
    actions.Duplicate(theirs.Get(), STDOUT_FILENO);
    actions.Duplicate(theirs.Get(), STDERR_FILENO);
    actions.CloseFrom(STDERR_FILENO + 1);
    // Before the launch: the program's first orphan would have another parent.
    AdoptOrphans(true);
    const int error =
        posix_spawn(&process, program, actions.Get(), attributes.Get(), arguments, environment);
    launched = TClock::now();
    if (error != 0)
        AdoptOrphans(false);
    return error;
}

// Reads once, at most so many bytes. False if there is nothing to read; at the end the pipe is closed.
bool CJob::ReadOutput(std::size_t most) {
    static std::array<char, 65536> block;
    const ssize_t count = read(pipe.Get(), block.data(), std::min(most, block.size()));
    if (count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR)) {
        pipe = CDescriptor();
        if (copy != nullptr)
            copy->Finish();
    }
    if (count <= 0)
        return false;
    const std::string_view bytes(block.data(), static_cast<std::size_t>(count));
    file->Append(bytes);
    if (copy != nullptr)
        copy->Write(bytes);
    follower.Take(bytes);
    return true;
}

// Of a writer that goes on meanwhile, only what it has written by now.
void CJob::ReadWhatIsThere() {
    int size = 0;
    if (ioctl(pipe.Get(), FIONREAD, &size) == -1)
        return;
    const std::uint64_t end = file->Count() + static_cast<std::uint64_t>(size);
    while (file->Count() < end && ReadOutput(end - file->Count())) {
    }
    // Closes the pipe if nobody has it any more.
    pollfd output{.fd = pipe.Get(), .events = POLLIN, .revents = 0};
    if (poll(&output, 1, 0) == 1 && (output.revents & POLLIN) == 0)
        ReadOutput(1);
}

void CJob::OnSignal() {
    signalfd_siginfo signal{};
    while (read(signals.Get(), &signal, sizeof signal) == sizeof signal) {
        // One more puts the kill off no further.
        if (signal.ssi_signo != SIGTERM || stop != cNothing)
            continue;
        stoppedBy = FindUser(signal.ssi_uid).name;
        Terminate(killAfter);
    }
}

void CJob::Wait(int milliseconds) {
    const int slow = follower.WaitsFor();
    std::array<pollfd, 3> events{
        {{.fd = signals.Get(), .events = POLLIN, .revents = 0},
         {.fd = pipe.IsOpen() && slow == -1 ? pipe.Get() : -1, .events = POLLIN, .revents = 0},
         {.fd = slow, .events = POLLOUT, .revents = 0}}};
    if (poll(events.data(), events.size(), milliseconds) == -1)
        return;
    if (events[0].revents != 0) {
        OnSignal();
        CollectOrphans();
    }
    if (events[1].revents != 0)
        ReadOutput(SIZE_MAX);
    if (events[2].revents != 0)
        follower.Send();
}

// Does not collect it: until then no other process gets its number, which is that of its group.
bool CJob::HasEnded() const {
    if (waitStatus)
        return true;
    siginfo_t end{};
    return waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           end.si_pid == process;
}

void CJob::CollectProgram() {
    int status = 0;
    if (!waitStatus && waitpid(process, &status, 0) == process)
        waitStatus = status;
}

// Up to the program, whose end HasEnded() finds.
void CJob::CollectOrphans() const {
    siginfo_t end{};
    while (waitid(P_ALL, 0, &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid != 0 &&
           end.si_pid != process)
        waitpid(end.si_pid, nullptr, WNOHANG);
}

void CJob::Collect(TRunRecord& run) {
    CollectProgram();
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    // All of this process's children are the program and its orphans.
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    RecordProgramEnd(run, waitStatus.value_or(0), usage);
    run.stoppedBy = stoppedBy;
    if (hasExceededItsTime)
        run.timeLimit = std::chrono::ceil<std::chrono::seconds>(*timeLimit);
}

// What the program leaves behind stays, unless it was terminated as well.
bool CJob::IsOver() {
    if (!HasEnded())
        return false;
    return stop == cNothing || (stop == cKill && TClock::now() >= stopLimit) || !IsAnyLeft();
}

bool CJob::IsAnyLeft() {
    if (reach == cGroup)
        return vxsched::IsGroupAlive(process);
    // What FindDescendants() misses would go on. Whoever loses its parent becomes a child of this process,
    // so that as long as any of them lives one of its children does.
    CollectProgram();
    pid_t child = 0;
    while ((child = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    return child == 0;
}

// Each once: many programs end at the second signal without what they do at the first. What is made
// meanwhile, or loses its parent, is found by the next call.
void CJob::TerminateDescendants() {
    for (const pid_t descendant : FindDescendants()) {
        if (terminated.insert(descendant).second)
            kill(descendant, SIGTERM);
    }
}

// What is stopped makes no more processes: they would be made faster than they are found.
void CJob::KillDescendants() {
    std::set<pid_t> stopped;
    bool isAnyNew = true;
    const auto stopNew = [&](const std::vector<pid_t>& found) {
        for (const pid_t descendant : found) {
            if (!stopped.insert(descendant).second)
                continue;
            kill(descendant, SIGSTOP);
            isAnyNew = true;
        }
    };
    for (int round = 0; round < cMostRounds && isAnyNew; ++round) {
        isAnyNew = false;
        stopNew(FindChildren());
        stopNew(FindDescendants());
    }
    for (const pid_t descendant : stopped)
        kill(descendant, SIGKILL);
}

void CJob::Terminate(std::chrono::milliseconds killLater) {
    stop = cTerm;
    stopLimit = TClock::now() + killLater;
    if (reach == cDescendants)
        TerminateDescendants();
    else
        kill(-process, SIGTERM);
}

void CJob::Kill() {
    stop = cKill;
    stopLimit = TClock::now() + cDeathLimit;
    if (reach == cDescendants)
        KillDescendants();
    else
        kill(-process, SIGKILL);
}

bool CJob::HasExceededItsTime() const {
    return timeLimit && TClock::now() >= launched + *timeLimit;
}

static int MillisecondsUntil(TClock::time_point time) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - TClock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

// In milliseconds, -1: without limit. Of the program's end the system sends a signal, but of that of its
// group none, and of what its descendants make none.
int CJob::NextTimeout() const {
    if (stop == cNothing)
        return timeLimit ? MillisecondsUntil(launched + *timeLimit) : -1;
    if (reach == cDescendants || HasEnded())
        return static_cast<int>(cGroupInterval.count());
    return stop == cKill ? -1 : MillisecondsUntil(stopLimit);
}

void CJob::GoOnStopping() {
    const TClock::time_point now = TClock::now();
    if (stop == cTerm && now >= stopLimit)
        return Kill();
    if (stop == cNothing || reach == cGroup || now < nextRound)
        return;
    nextRound = now + cGroupInterval;
    if (stop == cTerm)
        TerminateDescendants();
    else
        KillDescendants();
}

void CJob::WaitForEnd(TRunRecord& run) {
    while (!IsOver()) {
        if (stop == cNothing && HasExceededItsTime()) {
            hasExceededItsTime = true;
            Terminate(killAfterLimit);
        }
        GoOnStopping();
        Wait(NextTimeout());
    }
    Collect(run);
    if (pipe.IsOpen())
        ReadWhatIsThere();
    run.outputBytes = file->Count();
    run.outputError = file->Error();
}

void CJob::KeepOutput() {
    // The number of the program may be that of another process by now.
    signals = CDescriptor();
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGTERM);
    sigprocmask(SIG_UNBLOCK, &handled, nullptr);
    // Without room for a child this is the runner itself, which still has orphans.
    std::signal(SIGCHLD, SIG_IGN);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    while (HasOutput())
        Wait(-1);
}
