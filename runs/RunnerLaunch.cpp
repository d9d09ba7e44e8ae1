#include "runs/RunnerLaunch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/CDescriptor.h"
#include "base/WriteAll.h"
#include "store/CLaunchEnvironment.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

// The descriptors in a runner of the pipe for its report, and of whoever follows its output.
static constexpr int cReport = STDERR_FILENO + 1;
static constexpr int cFollower = cReport + 1;

std::string FindRunner(const std::vector<fs::path>& directories) {
    std::error_code ignored;
    const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
    // A path relative to the working directory would lead to anybody's program.
    if (!self.is_absolute())
        return "";
    for (const fs::path& directory : directories) {
        const fs::path runner = self.parent_path() / directory / vxsched::cRunnerProgram;
        if (access(runner.c_str(), X_OK) == 0)
            return runner.lexically_normal().string();
    }
    return "";
}

// The report of a runner; none if it ends without one. Of one that is late, a report without a process.
static std::optional<TLaunchReport> ReadReport(int pipe) {
    constexpr std::chrono::duration<int, std::milli> cLimit = cRunnerLimit;
    pollfd report{.fd = pipe, .events = POLLIN, .revents = 0};
    TLaunchReport launch{.error = 0, .process = 0, .run = {}, .reason = {}};
    if (poll(&report, 1, cLimit.count()) == 1 &&
        read(pipe, &launch, sizeof launch) != sizeof launch)
        return {};
    return launch;
}

// Whether a process that is ending was not killed; it is not collected.
static bool EndsByItself(pid_t process) {
    siginfo_t end{};
    return waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT) == 0 &&
           end.si_code == CLD_EXITED;
}

// A file in memory that the runner reads what it is to execute from; closed on failure.
static CDescriptor FileOfCommand(const TRunnerLaunch& launch) {
    TRunCommand command;
    const vxsched::CLaunchEnvironment added(nullptr, launch.task, launch.due);
    for (char* const* variable = added.Get(); variable != nullptr && *variable != nullptr;
         ++variable)
        command.variables.emplace_back(*variable);
    for (char* const* argument = launch.command; *argument != nullptr; ++argument)
        command.arguments.emplace_back(*argument);
    CDescriptor file(memfd_create("command", MFD_CLOEXEC));
    return file.IsOpen() && WriteAllAt(file.Get(), EncodeRunCommand(command), 0) ? std::move(file)
                                                                                 : CDescriptor();
}

// As posix_spawn(). `pipe` is for the report. If `command` is open, the runner takes from it what is
// else in its arguments and variables.
static int StartRunner(const TRunnerLaunch& launch, const CDescriptor& command, int pipe,
                       pid_t* process) {
    CSpawnAttributes attributes;
    attributes.ResetSignals();
    attributes.LeadSession();
    CSpawnActions actions;
    launch.direct(actions);
    if (command.IsOpen())
        actions.Duplicate(command.Get(), STDIN_FILENO);
    actions.Duplicate(pipe, cReport);
    const bool isFollowed = launch.follower != -1;
    if (isFollowed)
        actions.Duplicate(launch.follower, cFollower);
    actions.CloseFrom(isFollowed ? cFollower + 1 : cFollower);
    std::vector<char*> arguments{const_cast<char*>(launch.runner.c_str())};
    if (!command.IsOpen()) {
        for (char* const* argument = launch.command; *argument != nullptr; ++argument)
            arguments.push_back(*argument);
    }
    arguments.push_back(nullptr);
    TRunRequest request = launch.request;
    request.report = cReport;
    request.follower = isFollowed ? cFollower : -1;
    const std::string variable = EncodeRunRequest(request);
    const vxsched::CLaunchEnvironment environment(
        launch.environment, command.IsOpen() ? nullptr : launch.task,
        command.IsOpen() ? std::nullopt : launch.due, variable.c_str());
    return launch.spawn(process, launch.runner.c_str(), actions.Get(), attributes.Get(),
                        arguments.data(), environment.Get());
}

std::string TLaunched::Reason() const {
    return reason.empty() ? std::strerror(error) : reason;
}

std::optional<TLaunched> LaunchByRunner(const TRunnerLaunch& launch, int& error) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1) {
        error = errno;
        return {};
    }
    const CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    TLaunched launched;
    error = StartRunner(launch, CDescriptor(), theirs.Get(), &launched.child);
    // A program that just gets what the system permits has a runner that would get more.
    if (error == E2BIG) {
        if (const CDescriptor command = FileOfCommand(launch); command.IsOpen())
            error = StartRunner(launch, command, theirs.Get(), &launched.child);
    }
    if (error != 0)
        return {};
    theirs = CDescriptor();
    const std::optional<TLaunchReport> report = ReadReport(ours.Get());
    const bool isOfNoUse = !report && EndsByItself(launched.child);
    // Nobody else waits for it.
    if (isOfNoUse || (report && report->error != 0))
        wait4(launched.child, nullptr, 0, nullptr);
    if (isOfNoUse) {
        error = ENOEXEC;
        return {};
    }
    if (!report) {
        launched.program = launched.child;
        launched.kind = ELaunchedChild::cSilentRunner;
        return launched;
    }
    launched.error = report->error;
    launched.reason = report->reason;
    launched.program = report->process;
    // A runner that has no room for another process becomes the program.
    if (report->process != launched.child || report->run[0] != '\0')
        launched.kind = ELaunchedChild::cRunner;
    launched.run = report->run;
    return launched;
}
