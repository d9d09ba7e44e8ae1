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
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Spawn.h"
#include "host/CHostLog.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/COwedLaunches.h"
#include "host/programs/CProgramOutput.h"
#include "host/programs/CalendarTasks.h"
#include "host/programs/LaunchedTask.h"
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "interpose/Launch.h"
#include "jobs/JobLine.h"
#include "runs/RunnerLaunch.h"
#include "store/CLaunchEnvironment.h"
#include "store/Layout.h"
#include "store/TaskFileName.h"

using vxsched::CSchedule;
using vxsched::TTaskEntry;
using vxsched::TTime;

namespace {

// How long a tick tries to make a launch that the system refuses for want of processes.
constexpr std::chrono::milliseconds cAgainLimit(1000);
constexpr std::chrono::milliseconds cAgainPause(50);

// Set while no worker runs, read on the worker.
const std::list<TTask*>* const* gTasks = nullptr;
const CProgramOutput* gOutput = nullptr;
unsigned int gPause = 0;  // seconds
TKeptSizes gSizes;
TMoment gUpSince;

// The calls of time() that the add-in is about to make for a launch on this thread: one for the time
// of the launch, if it succeeded, and one to reschedule its task.
struct TTimeCalls {
    time_t due = 0;
    std::optional<vxsched::TTime> next;  // the due time that the rescheduling leaves alone
    int remaining = 0;
};
thread_local TTimeCalls gTimeCalls;

// What the new process does before it executes the program: it creates the launch record at
// `recordPath` and empties the file of the owed launch at `owedPath`, if there are any. Then its
// standard input is /dev/null, and its standard output `output` (-1: the host's own).
void FillActions(CSpawnActions& actions, int output, const std::optional<std::string>& recordPath,
                 const std::optional<std::string>& owedPath) {
    if (recordPath)
        actions.Open(STDIN_FILENO, *recordPath, O_WRONLY | O_CREAT, 0600);
    if (owedPath)
        actions.Open(STDIN_FILENO, *owedPath, O_WRONLY | O_TRUNC);
    actions.Open(STDIN_FILENO, "/dev/null", O_RDONLY);
    if (output != -1)
        actions.Duplicate(output, STDOUT_FILENO);
}

// The task that is being launched; null if it is unknown. The worker reads its own list, during its
// tick, which holds the store mutex: nothing changes the list meanwhile.
TTask* FindTask(const char* path, char* const arguments[]) {
    const char* const parameters = arguments[0] != nullptr ? arguments[1] : nullptr;
    if (TTask* const task = FindLaunchedTask(**gTasks, path, parameters))
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
    run.trigger = cScheduled;
    run.attempt = 1;
    run.program = path;
    run.parameter = arguments[0] != nullptr && arguments[1] != nullptr ? arguments[1] : "";
    if (task != nullptr) {
        run.task = task->name;
        run.due = TimeOf(task->nextExecution);
        run.trigger = TriggerOf(*run.due, CurrentMoment(), gUpSince);
    }
    return run;
}

// How the add-in, or this host for what it owes, asks for a launch.
struct TRequest {
    const char* path;
    char* const* arguments;
    char* const* environment;
    std::optional<vxsched::TTime> formerStart = std::nullopt;  // of TLaunchRecord
    int follower = -1;                                         // of LaunchByHand()
};

// Where the program of `run` writes; closed: where the host does.
CDescriptor OpenOutput(const TRunRecord& run) {
    return gOutput != nullptr ? gOutput->Open(run.task) : CDescriptor();
}

// Launches the program itself, which the host then waits for.
TLaunched LaunchDirectly(const TRunRecord& run, const TRequest& request, const CDescriptor& output,
                         const std::optional<std::string>& recordPath,
                         const std::optional<std::string>& owedPath) {
    CSpawnAttributes attributes;
    attributes.ResetSignals();
    CSpawnActions actions;
    FillActions(actions, output.Get(), recordPath, owedPath);
    if (output.IsOpen())
        actions.Duplicate(STDOUT_FILENO, STDERR_FILENO);
    actions.CloseFrom(STDERR_FILENO + 1);
    TLaunched launched;
    const auto spawnWith = [&](char* const variables[]) {
        return NextLaunchHandlers().spawn(&launched.child, request.path, actions.Get(),
                                          attributes.Get(), request.arguments, variables);
    };
    launched.error = vxsched::SpawnForTask(
        request.environment, run.task ? run.task->c_str() : nullptr, run.due, spawnWith);
    launched.program = launched.child;
    // Without a launcher that asks for it, the runner of a job records that as well.
    if (vxsched::IsRunner(request.path))
        launched.kind = ELaunchedChild::cSilentRunner;
    return launched;
}

TRunRequest::ECopy CopyTo(const CDescriptor& output) {
    if (output.IsOpen())
        return TRunRequest::cPlain;
    return gOutput != nullptr && gOutput->IsCopied() ? TRunRequest::cPrefixed
                                                     : TRunRequest::cNoCopy;
}

// Once for each reason, since it may hold for each launch.
void WarnOfNoRunner(int error) {
    static int lastError = 0;
    if (std::exchange(lastError, error) != error)
        LogWarning(
            fmt::format("programs are launched without the runner {}, as from now: {}. Their "
                        "output is not kept, and their end is recorded only while this host "
                        "runs. {}",
                        vxsched::cRunnerProgram, std::strerror(error),
                        error == EMFILE || error == ENFILE
                            ? "Raise the limit on open files (ulimit -n, LimitNOFILE= of the unit)."
                            : "Install the package anew."));
}

// Launches the program through the runner; directly if that is not possible.
TLaunched Spawn(const TRunRecord& run, const TRequest& request, const CDescriptor& output,
                const std::optional<std::string>& recordPath,
                const std::optional<std::string>& owedPath) {
    static const std::string cRunner = FindRunner({""});
    int error = ENOENT;
    if (!cRunner.empty()) {
        const TRunnerLaunch launch = {.spawn = NextLaunchHandlers().spawn,
                                      .runner = cRunner,
                                      .command = request.arguments,
                                      .environment = request.environment,
                                      .task = run.task ? run.task->c_str() : nullptr,
                                      .due = run.due,
                                      .request = {.trigger = run.trigger,
                                                  .historySize = gSizes.history,
                                                  .outputSize = gSizes.output,
                                                  .copy = CopyTo(output),
                                                  .attempt = run.attempt,
                                                  .retryOf = run.retryOf},
                                      .follower = request.follower,
                                      .direct = [&](CSpawnActions& actions) {
                                          FillActions(actions, output.Get(), recordPath, owedPath);
                                      }};
        if (const auto launched = LaunchByRunner(launch, error))
            return *launched;
        if (error == EAGAIN)
            return {.error = error};
    }
    TLaunched launched = LaunchDirectly(run, request, output, recordPath, owedPath);
    // A program whose arguments and variables just fit has no room for what its runner needs.
    if (launched.error == 0 && error != E2BIG)
        WarnOfNoRunner(error);
    return launched;
}

// Launches the program of `run`, and records that if the launch is made. `owedPath`, if set, is the
// file of an owed launch, which the new process empties. `output` is that of OpenOutput(). The caller
// reports an error.
TLaunched Launch(TRunRecord& run, const TRequest& request, const CDescriptor& output,
                 const std::optional<std::string>& owedPath) {
    const auto launching = CLaunchedPrograms::Instance().Launching();
    run.started = CurrentMoment();
    const auto spawn = [&](const std::optional<std::string>& recordPath) {
        return Spawn(run, request, output, recordPath, owedPath);
    };
    std::optional<TLaunchRecord> record;
    if (run.task && run.due && run.attempt == 1)
        record = {.task = vxsched::FileNameOf(*run.task),
                  .due = *run.due,
                  .launched = std::chrono::floor<std::chrono::seconds>(*run.started),
                  .formerStart = request.formerStart};
    const auto recordPath = record ? std::optional(LaunchRecordPath(*record)) : std::nullopt;
    const auto lacksRecord = [&] { return recordPath && access(recordPath->c_str(), F_OK) != 0; };
    TLaunched launched = spawn(recordPath);
    if (launched.error == EAGAIN)
        return launched;
    if (launched.error != 0 && lacksRecord() && MakeLaunchRecordDirectory())
        launched = spawn(recordPath);
    // On a full disk the program is launched without a record rather than not at all.
    if (launched.error != 0 && lacksRecord()) {
        LogWarning(
            fmt::format("cannot create the launch record {}: {}. If the host is killed before it "
                        "saves the table, the next host launches the program a second time.",
                        *recordPath, std::strerror(launched.error)));
        launched = spawn(std::nullopt);
    }
    if (launched.error == 0) {
        run.process = launched.program;
        if (launched.kind == ELaunchedChild::cProgram)
            run.id = MakeOwnRunId();
        if (record)
            RememberLaunch(*record);
        CLaunchedPrograms::Instance().Launched(run, launched.child, launched.kind);
    } else if (recordPath) {
        // The new process may have created the record before it failed.
        unlink(recordPath->c_str());
    }
    return launched;
}

// The add-in's waitpid() finds no such process.
constexpr pid_t cNoProcess = std::numeric_limits<pid_t>::max();

TTaskEntry EntryOf(const TTask& task) {
    return {.name = task.name,
            .next = TimeOf(task.nextExecution),
            .last = TimeOf(task.lastExecuted),
            .period = task.period,
            .program = task.program,
            .parameter = task.parameters,
            .paused = task.paused != 0};
}

// Whether the program of `task` was launched for its due time, by this host or the one before. To
// the add-in that is a launch: it reschedules the task.
bool IsMade(const TTaskEntry& task) {
    const std::optional<TLaunchRecord> launch = FindRecentLaunch(task);
    if (launch)
        LogWarning(fmt::format(
            "task \"{}\" is due again for a time for which it was launched, at {}: another process "
            "has saved the table as it was before. It is not launched a second time.",
            task.name, UtcTime(launch->launched)));
    return launch.has_value();
}

// `result` is that of the launch; `next` the task's due time after it, if that is set already.
void ExpectTimeCalls(vxsched::TTime due, int result, std::optional<vxsched::TTime> next) {
    gTimeCalls = {
        .due = due.time_since_epoch().count(), .next = next, .remaining = result == 0 ? 2 : 1};
}

void ReportFailure(TRunRecord& run, const TLaunched& launched) {
    RecordNotStarted(run, launched.Reason());
    CLaunchedPrograms::Instance().LaunchFailed(run);
}

// Tries again for at most a second, since the tick holds the store mutex; once a launch is owed,
// the next ones need not wait.
TLaunched LaunchWithRetries(TRunRecord& run, const TRequest& request) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point end = TClock::now() + cAgainLimit;
    const CDescriptor output = OpenOutput(run);
    TLaunched launched = Launch(run, request, output, {});
    while (launched.error == EAGAIN && COwedLaunches::Instance().Count() == 0 &&
           TClock::now() < end) {
        std::this_thread::sleep_for(cAgainPause);
        launched = Launch(run, request, output, {});
    }
    return launched;
}

TRunRecord Describe(const TOwedLaunch& owed) {
    TRunRecord run;
    run.trigger = cCaughtUp;
    run.attempt = 1;
    run.task = owed.task;
    run.due = owed.due;
    run.program = owed.program;
    run.parameter = owed.parameter;
    return run;
}

// Launches what the add-in has not asked for. `owedPath` is that of Launch().
TLaunched LaunchForHost(TRunRecord& run, std::optional<vxsched::TTime> formerStart,
                        const std::optional<std::string>& owedPath, int follower) {
    std::string program = run.program;
    std::string parameter = run.parameter;
    char* const arguments[] = {program.data(), parameter.data(), nullptr};
    TLaunched launched = Launch(run,
                                {.path = program.c_str(),
                                 .arguments = arguments,
                                 .environment = environ,
                                 .formerStart = formerStart,
                                 .follower = follower},
                                OpenOutput(run), owedPath);
    // Nobody else waits for it.
    if (launched.error == 0)
        CLaunchedPrograms::Instance().WaitedFor(launched.child, 0, 0, {});
    return launched;
}

// False if the system still refuses the launch.
bool MakeOwedLaunch(const TOwedLaunch& owed) {
    TRunRecord run = Describe(owed);
    // On a full disk there may be no file.
    const std::string path = OwedLaunchPath(owed);
    const auto file = access(path.c_str(), F_OK) == 0 ? std::optional(path) : std::nullopt;
    const TLaunched launched = LaunchForHost(run, owed.formerStart, file, -1);
    if (launched.error == EAGAIN)
        return false;
    if (launched.error != 0)
        ReportFailure(run, launched);
    return true;
}

// Launches a program of no known task.
int LaunchUnknown(const TRequest& request, pid_t* process) {
    TRunRecord run = Describe(nullptr, request.path, request.arguments);
    const TLaunched launched = LaunchWithRetries(run, request);
    if (launched.error == 0)
        *process = launched.child;
    else
        ReportFailure(run, launched);
    return launched.error;
}

// Launches the program of a task that the tick has found due.
int LaunchDue(const TTask& task, TRequest request, pid_t* process) {
    TRunRecord run = Describe(&task, request.path, request.arguments);
    CLaunchIntents::Instance().Intend(IntentOf(task), FindDue);
    request.formerStart = TimeOf(task.lastExecuted);
    const TLaunched launched = LaunchWithRetries(run, request);
    if (launched.error == 0) {
        *process = launched.child;
        COwedLaunches::Instance().ForgetMade(*run.task, *run.due);
    } else if (launched.error == EAGAIN) {
        LogWarning(
            fmt::format("cannot start {} yet: {}. Task \"{}\" is launched as soon as the "
                        "system has a process for it. Raise the limit on processes (ulimit "
                        "-u, TasksMax= of the unit).",
                        run.program, std::strerror(launched.error), *run.task));
        COwedLaunches::Instance().Add({.task = *run.task,
                                       .due = *run.due,
                                       .program = run.program,
                                       .parameter = run.parameter,
                                       .period = task.period,
                                       .formerStart = TimeOf(task.lastExecuted)});
    } else {
        ReportFailure(run, launched);
    }
    return launched.error;
}

}  // namespace

// Called by the add-in in place of posix_spawn(), on the worker, under the store mutex. Differs
// from libc's function in what the program inherits, and adds the task's name and due time to the
// environment; the add-in passes no attributes and no actions. The process is the program's runner,
// which ends as the program does. A launch that the system refuses for want of processes is made
// later, one that was made is not made again, and of a task with a calendar none is made that its
// calendar does not have. The task's next due time by its calendar is set. Returns 0 or an error number, as libc's does; errno is
// not defined.
static int OnSpawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* /*actions*/,
                   const posix_spawnattr_t* /*attributes*/, char* const arguments[],
                   char* const environment[]) {
    const TRequest request = {.path = path, .arguments = arguments, .environment = environment};
    TTask* const task = FindTask(path, arguments);
    if (task == nullptr) {
        const TTime now = std::chrono::floor<std::chrono::seconds>(CurrentMoment());
        const int result = LaunchUnknown(request, process);
        ExpectTimeCalls(now, result, {});
        return result;
    }
    const TTaskEntry entry = EntryOf(*task);
    const CSchedule schedule(entry);
    int result = ECANCELED;
    bool isLaunched = true;
    if (IsMade(entry)) {
        *process = cNoProcess;
        result = 0;
    } else if (IsToBeLaunched(entry, schedule)) {
        result = LaunchDue(*task, request, process);
    } else {
        isLaunched = false;
    }
    ExpectTimeCalls(entry.next, result, Reschedule(*task, schedule, isLaunched));
    return result;
}

time_t TimeOfCall(time_t now) {
    NoteClock();
    const bool reschedules = gTimeCalls.remaining == 1;
    gTimeCalls.remaining = std::max(gTimeCalls.remaining - 1, 0);
    if (!reschedules)
        return now;
    // From its due time on the add-in would move a task to the grid, however late it reschedules it.
    if (gTimeCalls.next)
        return std::min(now, gTimeCalls.next->time_since_epoch().count() - 1);
    return std::max(now, gTimeCalls.due + 1);
}

TLaunched LaunchByHand(const std::string& task, const std::string& program,
                       const std::string& parameter, int follower) {
    TRunRecord run;
    run.trigger = cManual;
    run.attempt = 1;
    run.task = task;
    run.program = program;
    run.parameter = parameter;
    TLaunched launched = LaunchForHost(run, {}, {}, follower);
    if (launched.error != 0)
        ReportFailure(run, launched);
    return launched;
}

void MakeOwedLaunches() {
    COwedLaunches::Instance().MakeAll(MakeOwedLaunch);
}

void RetryLostRuns() {
    CLaunchedPrograms& programs = CLaunchedPrograms::Instance();
    for (const TRunRecord& lost : programs.TakeLostRuns()) {
        TRunRecord next = MakeRetry(lost);
        next.id.clear();  // its runner makes one
        next.program = vxsched::cRunnerProgram;
        next.parameter = lost.job;
        const TLaunched launched = LaunchForHost(next, {}, {}, -1);
        if (launched.error == EAGAIN)
            continue;
        if (launched.error != 0)
            ReportFailure(next, launched);
        programs.RetryMade(lost);
    }
}

void CancelOwedLaunches(const std::vector<vxsched::TTaskEntry>& tasks) {
    const auto report = [](const TOwedLaunch& owed, const std::string& reason) {
        TRunRecord run = Describe(owed);
        RecordNotStarted(run, reason);
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
                    std::chrono::seconds pause, const TKeptSizes& sizes) {
    gTasks = tasks;
    gOutput = output;
    gSizes = sizes;
    gUpSince = CurrentMoment();
    gPause = static_cast<unsigned int>(pause.count());
    SetLaunchHandlers({.spawn = OnSpawn, .wait = Wait, .sleep = Pause});
}

void StopHandlingLaunches() {
    SetLaunchHandlers({.spawn = nullptr, .wait = nullptr, .sleep = nullptr});
    gTasks = nullptr;
    gOutput = nullptr;
}
