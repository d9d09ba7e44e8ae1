// vxschedd: runs the scheduler add-in in the foreground until it is told to stop.

#include <CEvent.h>
#include <VXC_Information.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <system_error>

#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/HostOptions.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/CProgramOutput.h"
#include "host/programs/Launch.h"
#include "host/recovery/CHeartbeat.h"
#include "host/recovery/CTableGuard.h"
#include "host/recovery/LaunchRecords.h"
#include "host/service/CMainLoop.h"
#include "host/service/CServiceManager.h"
#include "host/service/CSignals.h"
#include "host/service/CTickTimer.h"
#include "host/startup/AddInFile.h"
#include "host/startup/CAddInLibrary.h"
#include "host/startup/CDirectoryLock.h"
#include "host/startup/CStoreGate.h"
#include "host/startup/LoadAddIn.h"
#include "host/startup/NamespaceChecks.h"
#include "host/startup/SetUpCheck.h"
#include "host/startup/StartupMemory.h"
#include "host/startup/WorkDirectory.h"
#include "interpose/Clock.h"
#include "interpose/TableSaves.h"
#include "runs/CRunHistory.h"
#include "store/StopEvent.h"

// A host may be started with some of these closed. The next file that it opens, the table for one,
// would get the number, and be written to as the log.
static void OpenStandardDescriptors() {
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0)
        close(descriptor);
}

// Who is told that the add-in has lost its tasks; as long as there is nobody, it is remembered.
static CTableGuard* gGuard = nullptr;
static bool gAreTasksLost = false;

// These run on the thread that noticed, the worker or the one that loads the add-in.

static void ReportLoss() {
    if (gGuard != nullptr)
        gGuard->TasksDeleted();
    else
        gAreTasksLost = true;
}

static void OnInformation(const std::string& name, int value, void* /*context*/) {
    const std::string text = fmt::format("the add-in reports {} = {}", name, value);
    if (name == "TasksDeleted") {
        LogError(text);
        ReportLoss();
    } else {
        LogInfo(text);
    }
}

static void OnReadFailure() {
    LogError(fmt::format("the add-in could not read its table: {}", std::strerror(errno)));
    ReportLoss();
}

// Every tick asks for the time.
static void OnTimeAsked(time_t now) {
    CHeartbeat::Beat(now);
    PushTickTimer();
}

// The guard is told for as long as this object lives. No worker runs when it comes and goes.
class CInformed {
public:
    explicit CInformed(CTableGuard& guard) {
        gGuard = &guard;
        if (gAreTasksLost)
            guard.TasksDeleted();
    }
    ~CInformed() { gGuard = nullptr; }
    CInformed(const CInformed&) = delete;
    CInformed& operator=(const CInformed&) = delete;
};

static void WarnOfPitfalls() {
    for (const std::string& warning : WarningsOfOtherUsers())
        LogWarning(warning);
    if (const std::string warning = WarningOfRemoval(geteuid()); !warning.empty())
        LogWarning(warning);
    if (const std::string notice = NoticeOfPrivateNamespace(); !notice.empty())
        LogNotice(notice);
}

// A load has effects, also that of a library which then turns out to be none. What has no path is
// left to the dynamic linker.
static void RequireAddIn(const std::string& path) {
    if (path.find('/') == std::string::npos || access(path.c_str(), R_OK) != 0)
        return;
    if (const std::string reason = WhyNotAnAddIn(path); !reason.empty())
        throw CHostError(cNoAddIn, fmt::format("{} is not an add-in: {}. Name another library with "
                                               "--addin.",
                                               path, reason));
}

static std::unique_ptr<CEvent> OpenStopEvent() {
    try {
        return std::make_unique<CEvent>(cStopEventName, false);
    } catch (const std::system_error& error) {
        throw CHostError(cNoStore, fmt::format("cannot {}. Run vxschedd as the user who owns the "
                                               "semaphores that ipcs -s shows.",
                                               error.what()));
    }
}

// The add-in's worker, running for as long as this object lives: whatever ends the host, the worker
// is stopped before the add-in is destroyed.
class CRunningWorker {
public:
    // An add-in whose thread could not be started must not be destroyed: it counts as running, and
    // would be joined. So the process ends here, without finalisers.
    explicit CRunningWorker(CAddInInterface& startedAddIn) : addIn(startedAddIn) {
        if (const int error = addIn.Start(); error != 0) {
            CHostLog::Instance().Fail(fmt::format(
                "cannot start the scheduler's thread: {}. Look at the limits of threads "
                "and memory.",
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

static std::optional<vxsched::CWriterLock> TryTakeWriterLock(
    std::chrono::milliseconds lockTimeout) {
    try {
        return TakeWriterLock(lockTimeout);
    } catch (const CHostError& error) {
        LogWarning(fmt::format("stopping without a turn among the clients: {}", error.what()));
        return std::nullopt;
    }
}

static void Run(const THostOptions& options) {
    CHostLog& log = CHostLog::Instance();
    log.TakeAddInsMessages();
    if (!options.logFile.empty())
        log.WriteTo(options.logFile);
    CSignals signals;
    CServiceManager service;
    EnterDirectory(options.directory);
    const CDirectoryLock lock(options.directory);
    RequireAddIn(options.addIn);
    WarnOfPitfalls();
    VXC_SetInformationListener(OnInformation, nullptr);
    SetReadFailureListener(OnReadFailure);
    SetTimeListener(OnTimeAsked);

    const CProgramOutput output(options.output, options.outputSize);
    TakeLaunches(&output);
    CRunHistory history(options.historySize, LogWarning);
    CLaunchedPrograms& programs = CLaunchedPrograms::Instance();
    programs.RecordIn(&history);

    const std::unique_ptr<CEvent> stopEvent = OpenStopEvent();
    MakeLaunchRecordDirectory();
    CHeartbeat heartbeat;
    TLoaded loaded = LoadAddIn(options, heartbeat.FormerUptime(), history, [&] {
        const CFrozenClock clock;
        return std::make_unique<CAddInLibrary>(options.addIn);
    });
    heartbeat.Begin(loaded.upSince);
    CTableGuard guard(options.snapshots);
    const CInformed informed(guard);
    CMainLoop loop(signals, service, programs, *stopEvent);
    {
        const CRunningWorker worker(loaded.library->AddIn());
        guard.Begin();
        LogInfo(fmt::format("running in {} as process {}", options.directory, getpid()));
        service.Ready();
        ReleaseStartupMemory();
        if (options.runOnce)
            loop.WaitForTickEnd();
        else
            loop.WaitForStop();
        service.Stopping();
        if (loop.StopSignal())
            LogInfo(fmt::format("stopping on SIG{}", sigabbrev_np(*loop.StopSignal())));
    }
    guard.End();
    heartbeat.Stop();
    if (options.runOnce)
        loop.WaitForPrograms();
    {
        // A client that is making a change needs the store mutex, which goes with the add-in.
        const auto turn = TryTakeWriterLock(options.lockTimeout);
        loaded.library.reset();
    }
    programs.CollectFinished();
    programs.Leave();
    programs.RecordIn(nullptr);
    TakeLaunches(nullptr);
}

int main(int argc, char** argv) {
    OpenStandardDescriptors();
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
