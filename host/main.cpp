// vxschedd: runs the scheduler add-in in the foreground until SIGTERM or SIGINT.

#include <CEvent.h>
#include <VXC_Information.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <malloc.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "base/AbsolutePath.h"
#include "base/SignalName.h"
#include "base/StandardDescriptors.h"
#include "base/Sync.h"
#include "base/Umask.h"
#include "base/Users.h"
#include "control/Messages.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/HostOptions.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/COwedLaunches.h"
#include "host/programs/CProgramOutput.h"
#include "host/programs/Launch.h"
#include "host/recovery/CHeartbeat.h"
#include "host/recovery/CTableGuard.h"
#include "host/recovery/LaunchRecords.h"
#include "host/service/CControlSocket.h"
#include "host/service/CDueTimer.h"
#include "host/service/CIdleWorker.h"
#include "host/service/CMainLoop.h"
#include "host/service/COutputCleaner.h"
#include "host/service/CRunnerWatch.h"
#include "host/service/CServiceManager.h"
#include "host/service/CSignals.h"
#include "host/service/CStartupStop.h"
#include "host/service/CTickTimer.h"
#include "host/service/EarliestDue.h"
#include "host/startup/AddInFile.h"
#include "host/startup/CAddInLibrary.h"
#include "host/startup/CDirectoryLock.h"
#include "host/startup/CStoreGate.h"
#include "host/startup/Descriptors.h"
#include "host/startup/LoadAddIn.h"
#include "host/startup/NamespaceChecks.h"
#include "host/startup/SetUpCheck.h"
#include "host/startup/WorkDirectory.h"
#include "interpose/Clock.h"
#include "interpose/FileStatus.h"
#include "interpose/SemaphoreLoad.h"
#include "interpose/SemaphoreWait.h"
#include "runs/CRunHistory.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"
#include "store/StoreMutexSet.h"
#include "store/StoreSemaphores.h"
#include "store/TableSaves.h"

// The guard to notify when the add-in has lost its tasks. The add-in may lose them before there is
// a guard, while it is loaded; gAreTasksLost remembers that.
static CTableGuard* gGuard = nullptr;
static bool gAreTasksLost = false;

// The next three functions run on the thread that met the failure: the worker, or the main thread
// during the load.

static void ReportLoss() {
    if (gGuard != nullptr)
        gGuard->TasksDeleted();
    else
        gAreTasksLost = true;
}

static void OnInformation(const std::string& name, int value, void* /*context*/) {
    const std::string message = fmt::format("the add-in reports {} = {}", name, value);
    if (name == "TasksDeleted") {
        LogError(message);
        ReportLoss();
    } else {
        LogInfo(message);
    }
}

static void OnReadFailure() {
    LogError(fmt::format("the add-in could not read its table: {}", std::strerror(errno)));
    ReportLoss();
}

// Runs on the thread that met the failure. Only the first is logged: a disk that fails does so often.
static void OnSyncFailure(const std::string& message) {
    static std::atomic<bool> isLogged{false};
    if (!isLogged.exchange(true))
        LogWarning(message + ". Check the disk. This is logged once.");
}

// The set of the store mutex that this host made after another process had removed the former one;
// -1 if there is none.
static std::atomic<int> gMadeSet{-1};

static vxsched::TStoreMutexSet OpenOrMakeStoreMutex() {
    const vxsched::TStoreMutexSet set = vxsched::OpenOrMakeStoreMutex();
    if (set.isMade) {
        gMadeSet = set.id;
        vxsched::SetSemaphoreAccess(".");
    }
    return set;
}

// For the time after the worker has ended, which would make a removed mutex anew at its next lock.
// What is owed is launched under a store mutex only. Tried again in a second.
static void KeepStoreMutex() {
    static bool isFailureLogged = false;
    try {
        if (OpenOrMakeStoreMutex().isMade)
            LogWarning("the store mutex was removed. The host uses a new one now.");
        isFailureLogged = false;
    } catch (const std::exception& error) {
        if (!std::exchange(isFailureLogged, true))
            LogError(fmt::format("the store mutex was removed and is missing: {}", error.what()));
    }
}

// The next three functions run on the thread that locks: the worker, or the main thread.

static int TryToReplaceStoreMutex(int removed) {
    static std::atomic<int> lastRemoved{-1};
    try {
        const vxsched::TStoreMutexSet set = OpenOrMakeStoreMutex();
        if (lastRemoved.exchange(removed) != removed)
            LogWarning(fmt::format(
                "the store mutex was removed, as by a process that loads the add-in itself and "
                "exits normally. The host uses {} now. Have such processes end by _exit().",
                set.isMade ? "a new one" : "the one that another process has made since"));
        return set.id;
    } catch (const vxsched::CError& error) {
        if (lastRemoved.exchange(removed) != removed)
            LogError(fmt::format("the store mutex was removed and is missing: {}", error.what()));
        return -1;
    }
}

static int ReplaceStoreMutex(int removed) noexcept {
    try {
        return TryToReplaceStoreMutex(removed);
    } catch (const std::exception&) {
        return -1;  // memory is exhausted, so that even the log may fail
    }
}

// Once a second. A host that waits is up, for however long: what comes due meanwhile is its job. It
// does not tick, so the clock is not read by time(), which would restart the tick timer.
static void OnWaitForStoreMutex() noexcept {
    CHeartbeat::Beat(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    if (gGuard != nullptr)
        gGuard->WatchMutex();
}

// The add-in's destruction has removed the set that it made itself.
static void RemoveMadeStoreMutex() {
    if (gMadeSet != -1)
        semctl(gMadeSet, 0, IPC_RMID);
}

// Runs on the thread that called time(), which the worker does at every tick.
static time_t OnTimeCall(time_t now) {
    CHeartbeat::Beat(now);
    RestartTickTimer();
    return TimeOfCall(now);
}

// Has the guard notified of lost tasks for as long as this object lives. To be made and destroyed
// while no worker runs, since gGuard has no lock.
class CGuardRegistration {
public:
    explicit CGuardRegistration(CTableGuard& guard) {
        gGuard = &guard;
        if (gAreTasksLost)
            guard.TasksDeleted();
    }
    ~CGuardRegistration() { gGuard = nullptr; }
    CGuardRegistration(const CGuardRegistration&) = delete;
    CGuardRegistration& operator=(const CGuardRegistration&) = delete;
};

static void WarnOfPitfalls() {
    if (const std::string warning = WarningOfAccess("."); !warning.empty())
        LogWarning(warning);
    if (const std::string warning = WarningOfOtherUsers(); !warning.empty())
        LogWarning(warning);
    if (const std::string notice = NoticeOfPrivateNamespace(); !notice.empty())
        LogNotice(notice);
}

// Checks the library before the load, since loading any library has effects. A file that cannot be
// read is left to the dynamic linker.
static void RequireAddIn(const std::string& path) {
    if (path.find('/') != std::string::npos && access(path.c_str(), R_OK) != 0)
        return;
    if (const std::string message = WhyAddInIsRefused(path); !message.empty())
        throw CHostError(cNoAddIn, message);
}

// Before any of them is opened: the add-in's load would wait for a mutex that another user holds,
// and ends the process if it may not open an event.
static void RequireOwnSemaphores() {
    if (const std::string reason = vxsched::WhySemaphoresAreRefused("."); !reason.empty())
        throw CHostError(cNoStore, reason);
}

static std::unique_ptr<CEvent> OpenStopEvent() {
    try {
        return std::make_unique<CEvent>(vxsched::cStopEventName, false);
    } catch (const std::system_error& error) {
        throw CHostError(cNoStore, fmt::format("cannot {}. Run vxschedd as the owner of the "
                                               "semaphores that ipcs -s lists.",
                                               error.what()));
    }
}

// Runs the add-in's worker for as long as this object lives, so that it is stopped before the
// add-in is destroyed, also when an exception ends the host.
class CRunningWorker {
public:
    // An add-in whose thread could not be started still counts as running: its destructor would
    // join a thread that does not exist. So the process exits here, without finalisers.
    explicit CRunningWorker(CAddInInterface& startedAddIn) : addIn(startedAddIn) {
        if (const int error = addIn.Start(); error != 0) {
            CHostLog::Instance().Fail(fmt::format(
                "cannot start the scheduler's thread: {}. Raise the limits on threads and "
                "memory (ulimit -u, -s, -v).",
                std::strerror(error)));
            _exit(cFailed);
        }
    }
    ~CRunningWorker() {
        addIn.Stop();
        addIn.Unload();
    }
    CRunningWorker(const CRunningWorker&) = delete;
    CRunningWorker& operator=(const CRunningWorker&) = delete;

private:
    CAddInInterface& addIn;
};

// At exit a missing directory must not keep the host from stopping.
static std::optional<vxsched::CWriterLock> TryTakeWriterLock(
    std::chrono::milliseconds lockTimeout) {
    try {
        return TakeWriterLock(lockTimeout);
    } catch (const CHostError& error) {
        LogWarning(fmt::format("stopping without the writer lock: {}", error.what()));
        return std::nullopt;
    }
}

static vxsched::TLaunchAnswer AnswerLaunch(const vxsched::TLaunchRequest& request, int follower) {
    const TLaunched launched =
        LaunchByHand(request.task, request.program, request.parameter, follower);
    return {.error = launched.error,
            .message = launched.error != 0 ? launched.Reason() : "",
            .process = launched.program,
            .run = launched.run};
}

// A run whose file is gone has ended.
static vxsched::TStopAnswer AnswerStop(const vxsched::TStopRequest& request, uid_t user) {
    for (const vxsched::TRunning& running : vxsched::FindRunningRuns(".", request.task)) {
        if (running.run.id != request.run)
            continue;
        const int error = vxsched::Terminate(".", running, user);
        if (error != 0)
            return {.error = error, .message = std::strerror(error)};
        LogNotice(fmt::format("user {} has run {} of task \"{}\" stopped", FindUser(user).name,
                              request.run, request.task));
        return {};
    }
    if (vxsched::IsRunning(".", request.run))
        return {.error = EACCES, .message = "the file of the run cannot be read"};
    return {};
}

// Answers a client of the control socket.
static std::string AnswerClient(std::string_view line, const CControlSocket::TSender& sender) {
    return vxsched::AnswerRequest(
        line,
        [&](const vxsched::TLaunchRequest& request) {
            return AnswerLaunch(request, sender.passed);
        },
        [&](const vxsched::TStopRequest& request) { return AnswerStop(request, sender.user); });
}

static void Run(const THostOptions& options) {
    CHostLog& log = CHostLog::Instance();
    log.CaptureAddInMessages();
    if (!options.logFile.empty())
        log.WriteTo(options.logFile);
    ReserveDescriptors();
    SetSyncFailureListener(OnSyncFailure);
    CSignals signals;
    CServiceManager service;
    std::optional<CStartupStop> startupStop(std::in_place);
    EnterDirectory(options.directory, options.network);
    const CDirectoryLock lock(options.directory);
    RequireAddIn(options.addIn);
    RequireOwnSemaphores();
    WarnOfPitfalls();
    // A host that ticks once has no time for clients.
    std::optional<CControlSocket> control;
    if (!options.runOnce)
        control.emplace(AnswerClient);
    VXC_SetInformationListener(OnInformation, nullptr);
    vxsched::SaveTableInOneStep();
    SetFileStatusListener(vxsched::NoteFileStatus);
    vxsched::SetReadFailureListener(OnReadFailure);
    SetTimeHandler(OnTimeCall);

    const CProgramOutput output(options.output);
    CRunHistory history(options.historySize, LogWarning);
    CLaunchedPrograms& programs = CLaunchedPrograms::Instance();
    programs.RecordIn(&history);
    programs.RecordDead();

    const std::unique_ptr<CEvent> stopEvent = OpenStopEvent();
    MakeLaunchRecordDirectory();
    CHeartbeat heartbeat;
    TLoaded loaded = LoadAddIn(options, heartbeat.PreviousUptime(), history, [&](int heldSet) {
        const CFrozenClock clock;
        ReleaseAtLoad(heldSet);
        FollowNextLockedSet({ReplaceStoreMutex, OnWaitForStoreMutex});
        return std::make_unique<CAddInLibrary>(options.addIn);
    });
    vxsched::SetSemaphoreAccess(".");
    // The load launches nothing.
    HandleLaunches(loaded.library->Tasks(), &output, options.launchPause,
                   {.history = options.historySize, .output = options.outputSize});
    COwedLaunches::Instance().TakeOver();
    heartbeat.Begin(loaded.upSince);
    CDueTimer dueTimer;
    CTableGuard guard(options.snapshots, [&](const std::vector<vxsched::TTaskEntry>& tasks) {
        dueTimer.TableChanged(EarliestDue(tasks));
        CancelOwedLaunches(tasks);
    });
    const CGuardRegistration registration(guard);
    CMainLoop loop(signals, service, programs, *stopEvent);
    const COutputCleaner outputs;
    const CRunnerWatch runners(programs);
    startupStop.reset();
    {
        const CRunningWorker worker(loaded.library->AddIn());
        guard.Begin();
        if (control)
            control->Listen();
        LogInfo(fmt::format("running in {} as process {}", vxsched::AbsolutePath("."), getpid()));
        service.Ready();
        malloc_trim(0);  // the startup has decoded the table several times
        if (options.runOnce) {
            loop.WaitForTickEnd();
        } else {
            loop.Watch(dueTimer.Descriptor().Get(), [&] {
                if (dueTimer.TakeWake())
                    stopEvent->SetEvent();
            });
            loop.Watch(outputs.Descriptor(), [&] { outputs.Clean(); });
            loop.Watch(runners.Descriptor(), [&] { runners.Record(); });
            loop.Watch(control->Descriptor(), [&] { control->Serve(); });
            loop.WaitForStop();
            // A client that waits for an answer holds the store mutex, for which the worker may
            // wait.
            control.reset();
        }
        service.Stopping();
        if (loop.StopSignal())
            LogInfo("stopping on " + SignalName(*loop.StopSignal()));
    }
    heartbeat.Stop();
    if (options.runOnce) {
        const CIdleWorker idleWorker(*stopEvent, KeepStoreMutex);
        loop.WaitForPrograms();
        outputs.Clean();
    }
    guard.End();
    {
        // Destroying the add-in removes the store mutex, which a client in the middle of a change
        // needs. The directory lock is held, the writer lock comes after it.
        const auto writerLock = TryTakeWriterLock(options.lockTimeout);
        StopHandlingLaunches();
        loaded.library.reset();
        RemoveMadeStoreMutex();
    }
    if (const std::size_t count = COwedLaunches::Instance().Count(); count > 0)
        LogWarning(fmt::format("{} launch(es) are still owed: the next host makes them", count));
    programs.CollectFinished();
    programs.LeaveRunning();
    programs.RecordIn(nullptr);
}

int main(int argc, char** argv) {
    OpenStandardDescriptors(O_RDWR);
    RestrictUmask();
    try {
        const std::optional<THostOptions> options = ParseHostOptions(argc, argv);
        if (!options)
            return cStopped;
        if (options->check)
            return CheckSetUp(*options);
        Run(*options);
        LogInfo("stopped");
        return cStopped;
    } catch (const CHostError& error) {
        CHostLog::Instance().Fail(error.what());
        return error.status;
    } catch (const std::exception& error) {
        CHostLog::Instance().Fail(error.what());
        return cFailed;
    }
}
