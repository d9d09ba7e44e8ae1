// vxrun: launches one program for vxschedd or vxsched, keeps its output, and records its end. It
// outlives whoever has launched it.

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/CDescriptor.h"
#include "base/DisplayText.h"
#include "base/RegularFile.h"
#include "base/WriteAll.h"
#include "runner/CCopy.h"
#include "runner/CJob.h"
#include "runs/COutputFile.h"
#include "runs/CRunHistory.h"
#include "runs/CRunningFile.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"
#include "runs/RunRequest.h"

namespace {

constexpr int cUsage = 2;         // exit status
constexpr int cNotStarted = 127;  // exit status, as a shell has it

// A run is for its program to end, not for a reader of the copy that goes, a terminal, or a limit.
constexpr int cIgnored[] = {SIGPIPE, SIGHUP, SIGINT, SIGXFSZ};

// Of strings of a task, whose name has no limit but that of a table.
constexpr std::uint64_t cLongestCommand = std::uint64_t{1} << 30U;

// A reader of the host's log that has stalled does not hold up a run for longer than this.
constexpr int cStall = 1000;  // milliseconds

void Warn(const std::string& message) {
    const std::string line = ("vxrun: " + message).substr(0, PIPE_BUF - 1) + '\n';
    pollfd log{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&log, 1, cStall) == 1)
        static_cast<void>(WriteAll(STDERR_FILENO, line));
}

std::optional<TRunRequest> TakeRequest() {
    const char* const variable = std::getenv(cRunVariable);
    auto request = variable != nullptr ? DecodeRunRequest(variable) : std::nullopt;
    unsetenv(cRunVariable);
    return request;
}

// The program and its arguments, with a null pointer after them: those of this process or, if it has
// none, those of the file that is its standard input, with the variables there. Empty if there are none.
std::vector<char*> TakeCommand(int argc, char** argv) {
    if (argc >= 2)
        return {argv + 1, argv + argc + 1};
    static std::optional<TRunCommand> command;
    std::string bytes;
    if (ReadRegularFile(STDIN_FILENO, cLongestCommand, bytes))
        command = DecodeRunCommand(bytes);
    const CDescriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!command || dup2(nothing.Get(), STDIN_FILENO) == -1)
        return {};
    for (std::string& variable : command->variables)
        putenv(variable.data());
    std::vector<char*> pointers;
    for (std::string& argument : command->arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return pointers;
}

// A program that gets too much with its task's name and due time is launched without them. `launch`
// returns an error number.
template <typename Launch>
int LaunchForTask(const Launch& launch) {
    const int error = launch();
    if (error != E2BIG)
        return error;
    for (const char* const variable : {"VXSCHED_TASK", "VXSCHED_DUE"})
        unsetenv(variable);
    return launch();
}

TRunRecord Describe(char* const command[], const std::string& trigger) {
    TRunRecord run;
    run.started = CurrentMoment();
    run.trigger = trigger;
    run.attempt = 1;
    run.program = command[0];
    run.parameter = command[1] != nullptr ? command[1] : "";
    if (const char* const task = std::getenv("VXSCHED_TASK"))
        run.task = task;
    if (const char* const due = std::getenv("VXSCHED_DUE"))
        run.due = std::chrono::sys_seconds(std::chrono::seconds(std::strtoll(due, nullptr, 10)));
    run.id = MakeRunId(*run.started, FindLatestOutput(run.task));
    return run;
}

// False if the launcher is gone.
bool Report(int pipe, int error, pid_t process, const std::string& run) {
    TLaunchReport report{.error = error, .process = process, .run = {}};
    run.copy(report.run, sizeof report.run - 1);
    const bool isReported = write(pipe, &report, sizeof report) == sizeof report;
    close(pipe);
    return isReported;
}

// The system has no room for a process of the program's own, but has made this one.
bool IsForWantOfRoom(int error) {
    return error == EAGAIN || error == EMFILE || error == ENFILE;
}

// Executes the program in this process. Its launcher then waits for it and records its end; its output
// is not kept.
[[noreturn]] void Become(const TRunRequest& request, char* const command[]) {
    if (request.copy == TRunRequest::cPlain)
        dup2(STDOUT_FILENO, STDERR_FILENO);
    setsid();
    for (const int ignored : cIgnored)
        std::signal(ignored, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    Report(request.report, 0, getpid(), "");
    close_range(STDERR_FILENO + 1, ~0U, 0);
    LaunchForTask([&] {
        execv(command[0], command);
        return errno;
    });
    _exit(cNotStarted);
}

// Ends this process as its program has ended, for whoever waits for it.
[[noreturn]] void EndAs(const TRunRecord& run) {
    if (run.outcome == TRunRecord::cExited)
        _exit(run.number);
    // The crash is the program's, which has been reported.
    prctl(PR_SET_DUMPABLE, 0);
    std::signal(run.number, SIG_DFL);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    raise(run.number);
    _exit(128 + run.number);
}

// The launcher records the failure, if it can.
void ReportFailure(const TRunRequest& request, TRunRecord& run, int error, CRunHistory& history) {
    if (Report(request.report, error, 0, ""))
        return;
    RecordNotStarted(run, std::strerror(error));
    history.Add(run);
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

int Run(const TRunRequest& request, char* const command[]) {
    TRunRecord run = Describe(command, request.trigger);
    run.output = OutputPathOf(run.task, run.id);
    CRunHistory history(request.historySize, Warn);
    CRunningFile running(run);
    if (!running.Error().empty())
        Warn(fmt::format("cannot make the file of run {}: {}. vxsched stop does not find the run.",
                         run.id, running.Error()));
    std::optional<CCopy> copy;
    if (request.copy == TRunRequest::cPlain)
        copy.emplace();
    else if (request.copy == TRunRequest::cPrefixed)
        copy.emplace(vxsched::Show(run.task.value_or("?")).string + ": ");
    CFollower follower(request.follower);
    CJob job(copy ? &*copy : nullptr, follower);
    const int error = LaunchForTask([&] { return job.Launch(command[0], command); });
    if (error != 0) {
        // Before the report: a kill in between must not leave two records of it.
        running.Remove();
        if (IsForWantOfRoom(error))
            Become(request, command);
        ReportFailure(request, run, error, history);
        return cNotStarted;
    }
    run.process = job.Process();
    running.Update(run);
    // The launcher waits for it with the store mutex held: nothing else comes before.
    // Without its file nobody could find out that the run has ended.
    Report(request.report, 0, run.process, running.Error().empty() ? run.id : "");
    COutputFile file = MakeOutputFile(run.task, run.id, request.outputSize, Warn);
    job.KeepIn(file);
    job.WaitForEnd(run);
    RecordEnd(run, running, history);
    // Whoever follows the run finds its record at the end of its output.
    follower.End();
    KeepLaterOutput(job, file, run);
    EndAs(run);
}

}  // namespace

int main(int argc, char** argv) {
    for (const int ignored : cIgnored)
        std::signal(ignored, SIG_IGN);
    // Until the program runs, which it then ends.
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGTERM);
    sigprocmask(SIG_BLOCK, &held, nullptr);
    const std::optional<TRunRequest> request = TakeRequest();
    const std::vector<char*> command = request ? TakeCommand(argc, argv) : std::vector<char*>();
    if (command.empty()) {
        Warn("it is launched by vxschedd and vxsched, which pass what it needs. Use vxsched run.");
        return cUsage;
    }
    return Run(*request, command.data());
}
