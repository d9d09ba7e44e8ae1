#include "client/change/Launches.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "base/Spawn.h"
#include "base/Users.h"
#include "client/change/HostLaunch.h"
#include "interpose/Launch.h"
#include "runs/CRunHistory.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"
#include "runs/RunRequest.h"
#include "runs/RunnerLaunch.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"

namespace vxsched {

namespace {

TLaunchListener gListener;
std::string gTask;
int gOutput = -1;

// The host's own limit is not known here. A history that grows beyond it is rotated by the host; a
// smaller limit would lose what the host's keeps.
constexpr std::uint64_t cHistorySize = std::numeric_limits<std::uint64_t>::max();

// The environment that a service manager would give a host.
std::vector<std::string> EnvironmentOfAHost() {
    const TUser user = FindUser(geteuid());
    std::vector<std::string> variables = {
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=" + user.home,
        "LOGNAME=" + user.name, "USER=" + user.name, "SHELL=" + user.shell};
    if (const char* const language = std::getenv("LANG"))
        variables.push_back(std::string("LANG=") + language);
    return variables;
}

std::vector<char*> PointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string& string : strings)
        pointers.push_back(string.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Empty, because of `error`, if the runner could not be started.
std::optional<TLaunched> LaunchHere(const TLaunchRequest& request, const std::string& runner,
                                    int& error) {
    std::vector<std::string> command = {request.program, request.parameter};
    std::vector<std::string> inherited = EnvironmentOfAHost();
    const std::vector<char*> arguments = PointersTo(command);
    const std::vector<char*> variables = PointersTo(inherited);
    const TRunnerLaunch launch = {
        .spawn = NextLaunchHandlers().spawn,
        .runner = runner,
        .command = arguments.data(),
        .environment = variables.data(),
        .task = request.task.c_str(),
        .due = {},
        .request = {.trigger = cManual,
                    .historySize = cHistorySize,
                    .outputSize = cDefaultOutputSize,
                    .copy = TRunRequest::cNoCopy},
        .follower = gOutput,
        .direct = [](CSpawnActions& actions) {
            for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
                actions.Open(descriptor, "/dev/null", O_RDWR);
        }};
    return LaunchByRunner(launch, error);
}

// As the host records it.
void RecordFailure(const TLaunchRequest& request, const std::string& error) {
    TRunRecord run;
    run.trigger = cManual;
    run.attempt = 1;
    run.task = request.task;
    run.program = request.program;
    run.parameter = request.parameter;
    run.started = CurrentMoment();
    RecordNotStarted(run, error);
    CRunHistory(cHistorySize, [](const std::string&) {}).Add(run);
}

// Of runners that have died while no host was there to record that.
void RecordDeadRuns() {
    CRunHistory history(cHistorySize, [](const std::string&) {});
    RecordDeadRunners(
        [&](const TRunRecord& run) { return IsRecorded(".", run.id) || history.Add(run); });
}

// Makes a launch without a host. `error` is an error number.
TLaunch LaunchWithoutHost(const TLaunchRequest& request, int& error) {
    RecordDeadRuns();
    TLaunch launch;
    const std::string runner = FindRunner({VXSCHED_PROGRAM_DIRECTORY, "../../bin"});
    if (runner.empty()) {
        error = ENOENT;
        launch.error = fmt::format("{} of this installation is missing", cRunnerProgram);
    } else if (const auto launched = LaunchHere(request, runner, error)) {
        error = launched->error;
        launch.process = error == 0 ? launched->program : 0;
        launch.run = launched->run;
        launch.error = error != 0 ? launched->Reason() : "";
    } else {
        launch.error = fmt::format("cannot start {}: {}", runner, std::strerror(error));
    }
    if (error != 0)
        RecordFailure(request, launch.error);
    return launch;
}

TLaunch LaunchOf(const THostAnswer& answered) {
    const TLaunchAnswer& answer = answered.answer;
    TLaunch launch = {.process = answer.process,
                      .run = answer.run,
                      .error = answer.message,
                      .isKnown = answered.isKnown};
    if (!answered.isKnown)
        launch.error = "the host has not answered";
    else if (answer.error != 0 && answer.message.empty())
        launch.error = std::strerror(answer.error);
    return launch;
}

// Called by the add-in in place of posix_spawn(), under the store mutex, with its own environment
// and no attributes. The process is none of this process's children. Returns 0 or an error number:
// EIO if it is not known whether the program was launched.
int Spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* /*actions*/,
          const posix_spawnattr_t* /*attributes*/, char* const arguments[],
          char* const /*environment*/[]) {
    const TLaunchRequest request = {.task = gTask.substr(0, gTask.find('\0')),
                                    .program = path,
                                    .parameter = arguments[1] != nullptr ? arguments[1] : ""};
    TLaunch launch;
    int error = 0;
    int hostError = 0;
    if (const std::optional<THostAnswer> answered = LaunchByHost(request, gOutput, hostError)) {
        error = answered->isKnown ? answered->answer.error : EIO;
        launch = LaunchOf(*answered);
    } else {
        launch = LaunchWithoutHost(request, error);
        launch.hostError = hostError;
    }
    if (error == 0)
        *process = launch.process;
    gListener(launch);
    return error;
}

// The add-in's pause: nobody waits for the store mutex because of it.
unsigned int SkipPause(unsigned int /*seconds*/) {
    return 0;
}

}  // namespace

void ListenToLaunches(TLaunchListener listener) {
    gListener = std::move(listener);
    SetLaunchHandlers({.spawn = Spawn, .wait = nullptr, .sleep = SkipPause});
}

void SetLaunchedTask(const std::string& name, int output) {
    gTask = name;
    gOutput = output;
}

}  // namespace vxsched
