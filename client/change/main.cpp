// vxsched-change: makes one change of a table, or has the add-in launch the program of a task. The
// client library starts one for each: a client that is stopped or killed keeps no lock, and a hang or
// crash of the add-in cannot reach it.

#include <VXC_Log.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/CDescriptor.h"
#include "base/Sync.h"
#include "base/Umask.h"
#include "base/WriteAll.h"
#include "client/ApplyCalls.h"
#include "client/ChangeChecks.h"
#include "client/Fields.h"
#include "client/LockForChange.h"
#include "client/Request.h"
#include "client/change/HostLaunch.h"
#include "client/change/Launches.h"
#include "client/change/LoadAddIn.h"
#include "interpose/Clock.h"
#include "interpose/FileStatus.h"
#include "interpose/SemaphoreLoad.h"
#include "interpose/SemaphoreWait.h"
#include "store/Backups.h"
#include "store/CChangeEvent.h"
#include "store/CFormerTable.h"
#include "store/CMutexHealer.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/ForgetLaunches.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"
#include "store/StoreMutexSet.h"
#include "store/StoreOwner.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"
#include "store/TableSaves.h"
#include "store/WorkerState.h"

namespace vxsched {

namespace {

// The socket to the client; it comes as standard input.
int gClient = -1;

// What the launched program writes goes there, if it is open.
CDescriptor gRunOutput;

// How long the client may leave a message unread or unanswered, in milliseconds.
constexpr int cClientLimit = 5'000;

// Sends a message to the client. If the client has ended, or is stopped and has left earlier
// messages unread, this message and later ones are dropped, and the change is made.
void SendMessage(const char* kind, const std::string& content) {
    std::string bytes;
    PutField(bytes, kind);
    PutField(bytes, content);
    // Half a message may have been sent, after which no other makes sense.
    if (!SendAll(gClient, bytes))
        shutdown(gClient, SHUT_WR);
}

// Reads the request; empty if the client ended before it had sent all of it.
std::optional<TRequest> ReadRequest() {
    std::string bytes;
    char block[1 << 16];
    for (;;) {
        std::string_view left = bytes;
        if (const std::optional<std::string_view> field = TakeField(left))
            return DecodeRequest(*field);
        const ssize_t count = read(gClient, block, sizeof block);
        if (count > 0)
            bytes.append(block, static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return {};
    }
}

// The writer lock under which the add-in locks the store mutex.
const CWriterLock* gWriterLock = nullptr;

int ReplaceStoreMutex(int /*removed*/) noexcept {
    try {
        return OpenOrMakeStoreMutex(gWriterLock->OwnerForSets()).id;
    } catch (const std::exception&) {
        return -1;  // also when memory is exhausted
    }
}

void HealStoreMutex() noexcept {
    static CMutexHealer healer;
    try {
        if (healer.Observe() == CMutexHealer::cUnchanged)
            healer.Heal(*gWriterLock);
    } catch (const std::exception&) {
        // The add-in still waits; the client ends this process after its time limit.
    }
}

// Has the add-in's calls lock the store mutex also if another process removes it meanwhile, and
// sets it free if it is wedged meanwhile. To be called before the load.
void KeepLocking(const CWriterLock& writerLock) {
    gWriterLock = &writerLock;
    FollowNextLockedSet({ReplaceStoreMutex, HealStoreMutex});
}

// The first failure is enough for the client.
void WarnOfSyncFailure(const std::string& message) {
    static bool isSent = false;
    if (!isSent)
        SendMessage(cMessageWarning, message);
    isSent = true;
}

void SendError(const CError& error) {
    SendMessage(cMessageError, fmt::format("{} {}", static_cast<int>(error.Code()), error.what()));
}

// Announces a change of the table while the store mutex is held. If that fails, `failed` is called
// with the error.
template <typename Failed>
void Announce(const Failed& failed) {
    try {
        AnnounceChange();
    } catch (const CError& error) {
        failed(error);
    }
}

// Announces a save before it is made: killed after it, this process could not, and the scheduling
// process, which has not read the table, would overwrite it. A tick in between waits for the store
// mutex. One that cannot be announced is not made, for which the add-in is stopped by the end of this
// process.
void AnnounceSave() noexcept {
    Announce([](const CError& error) {
        SendError(error);
        _exit(1);
    });
}

// The same for a launch, which nothing undoes: its time is saved all the same.
void AnnounceSaveOfLaunch() noexcept {
    Announce([](const CError& /*reported at the launch*/) {});
}

// Announces a launch; a failure is a warning.
void AnnounceLaunch() {
    Announce([](const CError& error) {
        SendMessage(cMessageWarning,
                    fmt::format("the launch could not be announced: {}; a scheduling process that "
                                "runs may overwrite the time of the task's last launch",
                                error.what()));
    });
}

// Asks the client whether it still wants the change. False if it has ended. Throws CError (cBusy)
// if it does not answer: a client that is stopped must not keep the locks from everybody else.
bool MayBegin() {
    SendMessage(cMessageReady, "");
    pollfd answer{.fd = gClient, .events = POLLIN, .revents = 0};
    int ready = 0;
    do {
        ready = poll(&answer, 1, cClientLimit);
    } while (ready == -1 && errno == EINTR);
    if (ready == 0)
        throw CError(EError::cBusy,
                     "the client was stopped while its change was prepared; nothing was changed; "
                     "try again");
    char go = 0;
    return read(gClient, &go, 1) == 1;
}

// A tick whose store mutex a direct client's load has set free overwrites at its end what this
// process saves.
bool MayTickOverwrite(const TRequest& request) {
    return (request.hasScheduler && !IsWorkerIdle()) || IsTickUnderWay(".");
}

// A request that can be carried out.
struct TPrepared {
    std::string bytes;  // of the table as it is
    TTable table;
    CAppliedCalls applied;
};

// Checks the request; empty if a message has sent the client to wait or start over. The caller holds the
// writer lock and the store mutex.
std::optional<TPrepared> Prepare(const TRequest& request) {
    if (MayTickOverwrite(request)) {
        SendMessage(cMessageTick, "");
        return {};
    }
    std::string bytes = ReadTableBytes(".");
    TTable table = DecodeTable(bytes, Now());
    if (const TTaskEntry* const due = FindDue(table, request)) {
        SendMessage(cMessageDue, due->name);
        return {};
    }
    CheckTable(".", table);
    CAppliedCalls applied(table.tasks);
    for (const TCall& call : request.calls) {
        if (!applied.Apply(".", call, request.evenIfDue)) {
            SendMessage(cMessageChanged, call.task.name);
            return {};
        }
    }
    return TPrepared{std::move(bytes), std::move(table), std::move(applied)};
}

// What precedes any change. The caller holds the writer lock and the store mutex.
void Keep(const TPrepared& prepared) {
    RemoveLeftovers(".");
    KeepBeforeChange(".", prepared.bytes);
}

// Saves the changed table in one step: a kill leaves all of the change or nothing of it. Not through
// the add-in, whose functions save after each task. The caller holds the writer lock and the store
// mutex.
void Save(TPrepared prepared, bool isOneTask) {
    ForgetLaunches(".", prepared.table.tasks, prepared.applied.made);
    SendMessage(cMessageBegun, "");
    CChangeEvent changeEvent;
    AnnounceSave();
    // The table guard would take a save that removes several names, or that both removes a name and adds
    // one, for a loss.
    const bool isSave = isOneTask && prepared.applied.renames.empty();
    ReplaceMerged(".", std::move(prepared.bytes), EncodeTable(prepared.applied.tasks.Tasks()),
                  isSave ? TryToSaveTable : TryToSaveTasks, prepared.applied.renames);
    if (const std::string warning = changeEvent.Announce(); !warning.empty())
        SendMessage(cMessageWarning, warning);
}

// Has the add-in launch the program of a task. The store mutex is taken before the load of the add-in,
// so that the load, which sets it free, ends no other process's hold; the load releases it. If the load
// fails, the kernel releases the mutex at the end of this process.
void Execute(const TRequest& request, CStoreMutexLock& lock, const CWriterLock& writerLock) {
    ReleaseAtLoad(lock.Forget());
    KeepLocking(writerLock);
    std::optional<CFrozenClock> clock(std::in_place);
    const auto executeTaskNow = LoadAddIn(request.addIn);
    clock.reset();
    SendMessage(cMessageBegun, "");
    SetSemaphoreAccess(".");
    const std::string& name = request.calls.back().task.name;
    SetLaunchedTask(name, gRunOutput.Get());
    executeTaskNow(name.c_str(), true);
}

// Makes the change. False if a message has sent the client to wait or start over.
bool MakeChange(const TRequest& request, const CWriterLock& writerLock) {
    for (bool mayBegin = false;;) {
        auto lock = LockForChange<CStoreMutexLock>(std::chrono::milliseconds(request.lockTimeout),
                                                   writerLock);
        SetSemaphoreAccess(".");
        std::optional<TPrepared> prepared = Prepare(request);
        if (!prepared || (!mayBegin && !MayBegin()))
            return false;
        mayBegin = true;
        // A direct client whose load has set the mutex free meanwhile would overwrite the change by the
        // table that it has read before.
        if (lock.IsLost())
            continue;
        Keep(*prepared);
        if (IsRun(request.calls))
            Execute(request, lock, writerLock);
        else
            Save(*std::move(prepared), request.calls.size() == 1);
        return true;
    }
}

std::string ReadBack(const TRequest& request, const CWriterLock& writerLock) {
    try {
        const CStoreMutexLock lock(std::chrono::milliseconds(request.lockTimeout), writerLock);
        // Before the read: a tick that is over by now has saved, and a later one reads the table.
        if (MayTickOverwrite(request))
            SendMessage(cMessageMayBeOverwritten, "");
        return ReadTableBytes(".");
    } catch (const CError& error) {
        throw MakeError(EError::cFailed, "the change was made but could not be verified: {}",
                        error.what());
    }
}

void TidyLinks(const TRequest& request, const std::string& bytes) {
    std::optional<TTable> table;
    try {
        table = DecodeTable(bytes, Now());
    } catch (const CError&) {
        return;  // the client finds that out, too, and restores the backup
    }
    RemoveUnusedLinks(request.directory, *table);
}

// Has the add-in, which saves the time of a launch, do so in one step. Throws CError (cFailed).
void PrepareForAddIn(const std::string& addIn) {
    if (const std::string reason = WhySavesAreNotInOneStep(addIn); !reason.empty())
        throw MakeError(
            EError::cFailed,
            "the add-in {} is refused, since a save that is interrupted would lose tasks: {}. Run "
            "the client without another support library (LD_PRELOAD), or with another add-in",
            addIn, reason);
    SaveTableInOneStep();
    SetSaveListener(AnnounceSaveOfLaunch);
    SetFileStatusListener(NoteFileStatus);
}

void Serve(const TRequest& request) {
    ListenToLaunches([&request](const TLaunch& launch) {
        // The add-in does not announce a launch outside the schedule, and the scheduling process
        // would overwrite the task's last launch. So it is announced here, while the store mutex is
        // held.
        AnnounceLaunch();
        if (request.hasHost && launch.hostError != 0)
            SendMessage(cMessageWarning, "the host that runs did not make the launch: " +
                                             WhyNotByHost(launch.hostError) +
                                             ". It was made without it, with another environment "
                                             "and other limits");
        if (launch.process != 0)
            SendMessage(cMessageLaunched, fmt::format("{} {}", launch.process, launch.run));
        else
            SendMessage(launch.isKnown ? cMessageLaunchFailed : cMessageLaunchUnknown,
                        launch.error);
    });
    std::string bytes;
    {
        const auto writerLock =
            LockForChange<CWriterLock>(".", std::chrono::milliseconds(request.lockTimeout));
        if (!MakeChange(request, writerLock))
            return;
        bytes = ReadBack(request, writerLock);
        TidyLinks(request, bytes);
    }
    // Without the locks, since a table of many tasks takes as long as the client to read it.
    SendMessage(cMessageTable, bytes);
}

int Main() {
    RestrictUmask();
    gClient = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    const timeval limit{.tv_sec = cClientLimit / 1000, .tv_usec = 0};
    setsockopt(gClient, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::optional<TRequest> request = ReadRequest();
    if (!request)
        return 1;
    if (request->hasOutput) {
        const CDescriptor inherited(cOutputDescriptor);
        gRunOutput = CDescriptor(fcntl(inherited.Get(), F_DUPFD_CLOEXEC, 10));
    }
    // The client may ignore SIGCHLD, and this process inherits that: a runner that could not launch
    // its program would have no status.
    std::signal(SIGCHLD, SIG_DFL);
    VXC_SetLogSink([](const std::string& message, void*) { SendMessage(cMessageLog, message); },
                   nullptr);
    try {
        if (chdir(request->directory.c_str()) == -1)
            throw SystemError("cannot work in " + request->directory, errno);
        BecomeForeignOwner(".");
        if (request->hasOutput && !gRunOutput.IsOpen())
            throw SystemError("cannot keep a descriptor for the output", EMFILE);
        SetSyncFailureListener(WarnOfSyncFailure);
        if (IsRun(request->calls))
            PrepareForAddIn(request->addIn);
        Serve(*request);
        return 0;
    } catch (const CError& error) {
        SendError(error);
    } catch (const std::exception& error) {
        SendError(CError(EError::cFailed, error.what()));
    }
    return 1;
}

}  // namespace

}  // namespace vxsched

int main() {
    _exit(vxsched::Main());
}
