// Handles the add-in's calls of posix_spawn(), waitpid() and sleep(). A launched program gets a clean
// signal mask, clean dispositions, no descriptor of the host, and its task's name and due time;
// every launch and every end is logged and recorded. To the add-in the handlers behave like libc's
// functions.

#include "host/programs/Launch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <scheduler/Scheduler.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/Spawn.h"
#include "host/CHostLog.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/COwedLaunches.h"
#include "host/programs/CProgramOutput.h"
#include "host/programs/LaunchedTask.h"
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "interpose/Launch.h"
#include "store/CLaunchEnvironment.h"
#include "store/TaskFileName.h"

namespace {

// How long a tick tries to make a launch that the system refuses for want of processes.
constexpr std::chrono::milliseconds cAgainLimit(1000);
constexpr std::chrono::milliseconds cAgainPause(50);

// Set while no worker runs, read on the worker.
const std::list<TTask*>* const* gTasks = nullptr;
const CProgramOutput* gOutput = nullptr;
unsigned int gPause = 0;  // seconds

// The calls of time() that the add-in is about to make for a launch on this thread: one for the time
// of the launch, if it succeeded, and one to reschedule its task.
struct TTimeCalls {
    time_t due = 0;
    int remaining = 0;
};
thread_local TTimeCalls gTimeCalls;

// Gives the program /dev/null as standard input, `output` (-1: the host's own) as standard output
// and error, and no other descriptor. Before that, the new process creates the launch record at
// `recordPath` and empties the file of the owed launch at `owedPath`, if there are any.
void FillActions(CSpawnActions& actions, int output, const std::optional<std::string>& recordPath,
                 const std::optional<std::string>& owedPath) {
    if (recordPath)
        actions.Open(STDIN_FILENO, *recordPath, O_WRONLY | O_CREAT, 0600);
    if (owedPath)
        actions.Open(STDIN_FILENO, *owedPath, O_WRONLY | O_TRUNC);
    actions.Open(STDIN_FILENO, "/dev/null", O_RDONLY);
    if (output != -1) {
        actions.Duplicate(output, STDOUT_FILENO);
        actions.Duplicate(output, STDERR_FILENO);
    }
    actions.CloseFrom(STDERR_FILENO + 1);
}

// The task that is being launched; null if it is unknown. The worker reads its own list, during its
// tick, which holds the store mutex: nothing changes the list meanwhile.
const TTask* FindTask(const char* path, char* const arguments[]) {
    const char* const parameters = arguments[0] != nullptr ? arguments[1] : nullptr;
    if (const TTask* const task = FindLaunchedTask(**gTasks, path, parameters))
        return task;
    LogWarning(
        fmt::format("program {} belongs to no task of the add-in's list. It is launched, and "
                    "recorded without a task.",
                    path));
    return nullptr;
}

vxsched::TTime TimeOf(time_t time) {
    return vxsched::TTime(std::chrono::seconds(time));
}

TLaunchIntent IntentOf(const TTask& task) {
    return {vxsched::FileNameOf(task.name), TimeOf(task.nextExecution)};
}

// The tasks that are due now: those that this tick is about to launch, and seldom one that has come
// due since it began.
std::vector<TLaunchIntent> FindDue() {
    const time_t now = std::chrono::system_clock::to_time_t(CurrentMoment());
    std::vector<TLaunchIntent> due;
    for (const TTask* const task : **gTasks) {
        if (task->paused == 0 && task->nextExecution <= now)
            due.push_back(IntentOf(*task));
    }
    return due;
}

// What is known of a launch before it is made; `task` may be null. The tick reschedules a task
// after its launch, so the task's next execution is still the due time.
TRunRecord Describe(const TTask* task, const char* path, char* const arguments[]) {
    TRunRecord run;
    run.program = path;
    run.parameter = arguments[0] != nullptr && arguments[1] != nullptr ? arguments[1] : "";
    if (task != nullptr) {
        run.task = task->name;
        run.due = TimeOf(task->nextExecution);
    }
    return run;
}

// How the add-in, or this host for what it owes, asks for a launch.
struct TRequest {
    const char* path;
    const posix_spawn_file_actions_t* actions;
    const posix_spawnattr_t* attributes;
    char* const* arguments;
    char* const* environment;
    std::optional<vxsched::TTime> formerStart = std::nullopt;  // of TLaunchRecord
};

// Where the program of `run` writes; closed: where the host does.
CDescriptor OpenOutput(const TRunRecord& run, const CProgramOutput::TWarn& warn) {
    return gOutput != nullptr ? gOutput->Open(run.task, warn) : CDescriptor();
}

// Launches the program of `run`, and records that if the launch is made. `owedPath`, if set, is the
// file of an owed launch, which the new process empties. `output` is that of OpenOutput(). Returns 0
// or an error number; the caller reports an error.
int Launch(TRunRecord& run, const TRequest& request, const CDescriptor& output,
           const std::optional<std::string>& owedPath) {
    run.started = CurrentMoment();
    CSpawnAttributes cleanAttributes;
    cleanAttributes.ResetSignals();
    const auto spawn = [&](const std::optional<std::string>& createdPath) {
        CSpawnActions cleanActions;
        FillActions(cleanActions, output.Get(), createdPath, owedPath);
        const auto spawnWith = [&](char* const variables[]) {
            return NextLaunchHandlers().spawn(
                &run.process, request.path,
                request.actions != nullptr ? request.actions : cleanActions.Get(),
                request.attributes != nullptr ? request.attributes : cleanAttributes.Get(),
                request.arguments, variables);
        };
        return vxsched::SpawnForTask(request.environment, run.task ? run.task->c_str() : nullptr,
                                     run.due, spawnWith);
    };
    std::optional<TLaunchRecord> record;
    if (run.task && run.due)
        record = {.task = vxsched::FileNameOf(*run.task),
                  .due = *run.due,
                  .launched = std::chrono::floor<std::chrono::seconds>(*run.started),
                  .formerStart = request.formerStart};
    const auto recordPath = record ? std::optional(LaunchRecordPath(*record)) : std::nullopt;
    const auto lacksRecord = [&] { return recordPath && access(recordPath->c_str(), F_OK) != 0; };
    int result = spawn(recordPath);
    if (result == EAGAIN)
        return result;
    if (result != 0 && lacksRecord() && MakeLaunchRecordDirectory())
        result = spawn(recordPath);
    // On a full disk the program is launched without a record rather than not at all.
    if (result != 0 && lacksRecord()) {
        LogWarning(
            fmt::format("cannot create the launch record {}: {}. If the host is killed before it "
                        "saves the table, the next host launches the program a second time.",
                        *recordPath, std::strerror(result)));
        result = spawn(std::nullopt);
    }
    if (result == 0) {
        if (record)
            RememberLaunch(*record);
        CLaunchedPrograms::Instance().Launched(run);
    } else if (recordPath) {
        // The new process may have created the record before it failed.
        unlink(recordPath->c_str());
    }
    return result;
}

// The add-in's waitpid() finds no such process.
constexpr pid_t cNoProcess = std::numeric_limits<pid_t>::max();

// Whether the program of `task` was launched for its due time, by this host or the one before. To
// the add-in that is a launch: it reschedules the task.
bool IsMade(const TTask& task) {
    const std::optional<TLaunchRecord> launch =
        FindRecentLaunch({.name = task.name,
                          .next = TimeOf(task.nextExecution),
                          .last = TimeOf(task.lastExecuted),
                          .period = task.period,
                          .program = {},
                          .parameter = {},
                          .paused = false});
    if (launch)
        LogWarning(fmt::format(
            "task \"{}\" is due again for a time for which it was launched, at {}: another process "
            "has saved the table as it was before. It is not launched a second time.",
            task.name, UtcTime(launch->launched)));
    return launch.has_value();
}

// `result` is that of the launch.
void ExpectTimeCalls(vxsched::TTime due, int result) {
    gTimeCalls = {.due = due.time_since_epoch().count(), .remaining = result == 0 ? 2 : 1};
}

void ReportFailure(TRunRecord& run, int error) {
    run.outcome = TRunRecord::cNotStarted;
    run.ended = run.started;
    run.error = std::strerror(error);
    CLaunchedPrograms::Instance().LaunchFailed(run);
}

// Tries again for at most a second, since the tick holds the store mutex; once a launch is owed,
// the next ones need not wait.
int LaunchWithRetries(TRunRecord& run, const TRequest& request) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point end = TClock::now() + cAgainLimit;
    const CDescriptor output = OpenOutput(run, LogWarning);
    int result = Launch(run, request, output, {});
    while (result == EAGAIN && COwedLaunches::Instance().Count() == 0 && TClock::now() < end) {
        std::this_thread::sleep_for(cAgainPause);
        result = Launch(run, request, output, {});
    }
    return result;
}

// The warnings that the attempts at the oldest owed launch have logged; of the main thread.
std::set<std::string> gOwedWarnings;

// Attempts are made once a second, perhaps for hours: each warning is logged once.
void WarnOfOwed(const std::string& warning) {
    if (gOwedWarnings.insert(warning).second)
        LogWarning(warning);
}

TRunRecord Describe(const TOwedLaunch& owed) {
    TRunRecord run;
    run.task = owed.task;
    run.due = owed.due;
    run.program = owed.program;
    run.parameter = owed.parameter;
    return run;
}

// False if the system still refuses the launch.
bool MakeOwedLaunch(const TOwedLaunch& owed) {
    TRunRecord run = Describe(owed);
    std::string program = owed.program;
    std::string parameter = owed.parameter;
    char* const arguments[] = {program.data(), parameter.data(), nullptr};
    // On a full disk there may be no file.
    const std::string path = OwedLaunchPath(owed);
    const auto file = access(path.c_str(), F_OK) == 0 ? std::optional(path) : std::nullopt;
    const int result = Launch(run,
                              {.path = program.c_str(),
                               .actions = nullptr,
                               .attributes = nullptr,
                               .arguments = arguments,
                               .environment = environ,
                               .formerStart = owed.formerStart},
                              OpenOutput(run, WarnOfOwed), file);
    if (result == EAGAIN)
        return false;
    gOwedWarnings.clear();
    // Nobody else waits for it.
    if (result == 0)
        CLaunchedPrograms::Instance().WaitedFor(run.process, 0, 0, {});
    else
        ReportFailure(run, result);
    return true;
}

}  // namespace

// Called by the add-in in place of posix_spawn(), on the worker, under the store mutex. Differs
// from libc's function in what the program inherits where the add-in passes no attributes and no
// actions, and adds the task's name and due time to the environment. A launch that the system
// refuses for want of processes is made later, one that was made is not made again. Returns 0 or an
// error number, as libc's does; errno is not defined.
static int Spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
    const TTask* const task = FindTask(path, arguments);
    if (task != nullptr && IsMade(*task)) {
        *process = cNoProcess;
        ExpectTimeCalls(IntentOf(*task).due, 0);
        return 0;
    }
    TRunRecord run = Describe(task, path, arguments);
    if (task != nullptr)
        CLaunchIntents::Instance().Intend(IntentOf(*task), FindDue);
    TRequest request = {.path = path,
                        .actions = actions,
                        .attributes = attributes,
                        .arguments = arguments,
                        .environment = environment};
    if (task != nullptr)
        request.formerStart = TimeOf(task->lastExecuted);
    const int result = LaunchWithRetries(run, request);
    if (result == 0) {
        *process = run.process;
        if (run.task && run.due)
            COwedLaunches::Instance().ForgetMade(*run.task, *run.due);
    } else if (result == EAGAIN && run.task && run.due) {
        LogWarning(
            fmt::format("cannot start {} yet: {}. Task \"{}\" is launched as soon as the "
                        "system has a process for it. Raise the limit on processes (ulimit "
                        "-u, TasksMax= of the unit).",
                        run.program, std::strerror(result), *run.task));
        COwedLaunches::Instance().Add({.task = *run.task,
                                       .due = *run.due,
                                       .program = run.program,
                                       .parameter = run.parameter,
                                       .period = task->period,
                                       .formerStart = TimeOf(task->lastExecuted)});
    } else {
        ReportFailure(run, result);
    }
    ExpectTimeCalls(run.due.value_or(std::chrono::floor<std::chrono::seconds>(*run.started)),
                    result);
    return result;
}

time_t TimeOfCall(time_t now) {
    const bool reschedules = gTimeCalls.remaining == 1;
    gTimeCalls.remaining = std::max(gTimeCalls.remaining - 1, 0);
    return reschedules ? std::max(now, gTimeCalls.due + 1) : now;
}

void MakeOwedLaunches() {
    COwedLaunches::Instance().MakeAll(MakeOwedLaunch);
}

void CancelOwedLaunches(const std::vector<vxsched::TTaskEntry>& tasks) {
    const auto report = [](const TOwedLaunch& owed, const std::string& reason) {
        TRunRecord run = Describe(owed);
        run.outcome = TRunRecord::cNotStarted;
        run.error = reason;
        CLaunchedPrograms::Instance().LaunchCancelled(run);
    };
    COwedLaunches::Instance().Cancel(tasks, report);
}

// Called by the add-in in place of waitpid(), on the worker, once after each launch. Results and
// errno are those of libc's function.
static pid_t Wait(pid_t process, int* status, int options) {
    int endStatus = 0;
    rusage usage{};
    const pid_t result = wait4(process, &endStatus, options, &usage);
    const int error = errno;
    if (result > 0 && status != nullptr)
        *status = endStatus;
    CLaunchedPrograms::Instance().WaitedFor(process, result, endStatus, usage);
    errno = error;
    return result;
}

// Called by the add-in in place of sleep(), on the worker, after each launch. Returns 0, as after a
// complete sleep.
static unsigned int Pause(unsigned int /*seconds*/) {
    return gPause == 0 ? 0 : NextLaunchHandlers().sleep(gPause);
}

void HandleLaunches(const std::list<TTask*>* const* tasks, const CProgramOutput* output,
                    std::chrono::seconds pause) {
    gTasks = tasks;
    gOutput = output;
    gPause = static_cast<unsigned int>(pause.count());
    SetLaunchHandlers({.spawn = Spawn, .wait = Wait, .sleep = Pause});
}

void StopHandlingLaunches() {
    SetLaunchHandlers({.spawn = nullptr, .wait = nullptr, .sleep = nullptr});
    gTasks = nullptr;
    gOutput = nullptr;
}
