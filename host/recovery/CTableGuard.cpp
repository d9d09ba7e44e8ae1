#include "host/recovery/CTableGuard.h"

#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <unordered_set>
#include <utility>

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include <vxsched/SchedulingProcess.h>
#include "host/CHostLog.h"
#include "host/HostThread.h"
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "store/Backups.h"
#include "store/CSchedule.h"
#include "store/CStoreMutexLock.h"
#include "store/Grid.h"
#include "store/Layout.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"
#include "store/TableSaves.h"
#include "store/WorkerState.h"

using vxsched::TTaskEntry;

namespace {

// Short, since a tick may hold the store mutex for minutes, and End() waits for a check.
constexpr std::chrono::milliseconds cLockTimeout(200);
constexpr std::chrono::seconds cLongerThanAnySave(10);
constexpr std::chrono::milliseconds cFirstRetry(100);
constexpr std::chrono::milliseconds cLongestRetry(5000);
constexpr int cNoTimeout = -1;

std::vector<TTaskEntry> TasksOf(const std::string& bytes) {
    return vxsched::DecodeTable(bytes, vxsched::Now()).tasks;
}

// Settles the launches that the table shows.
void SettleShown(const std::vector<TLaunchRecord>& records, const std::vector<TTaskEntry>& tasks) {
    SettleLaunches(FindSettled(records, tasks));
    CLaunchIntents::Instance().Settle(tasks);
}

void LogErrors(const std::vector<std::string>& notes) {
    for (const std::string& note : notes)
        LogError(note);
}

}  // namespace

CTableGuard::CTableGuard(std::size_t snapshots, TListener validTableListener)
    : wakeups(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      retryInterval(cFirstRetry, cLongestRetry),
      mostSnapshots(snapshots),
      listener(std::move(validTableListener)) {
    if (!Watch() && errno != 0)
        LogWarning(fmt::format(
            "cannot watch the directory \"{}\": {}. The table is checked every second instead.",
            vxsched::cFilesDirectory, std::strerror(errno)));
    Check();
}

void CTableGuard::Begin() {
    isWorkerRunning = true;
    try {
        thread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
        LogWarning(
            fmt::format("cannot guard the table: {}. Tasks may be launched a minute late. Raise "
                        "the limits on threads and memory (ulimit -u, -v), and restart vxschedd.",
                        error.what()));
    }
}

CTableGuard::~CTableGuard() {
    End();
}

void CTableGuard::End() {
    isStopping = true;
    eventfd_write(wakeups.Get(), 1);
    if (thread.joinable())
        thread.join();
}

void CTableGuard::TasksDeleted() {
    wereTasksDeleted = true;
    eventfd_write(wakeups.Get(), 1);
}

void CTableGuard::WatchMutex() {
    mustWatchMutex = true;
    eventfd_write(wakeups.Get(), 1);
}

// Watches the directory "files", also again after it was renamed or removed and another was
// created. False, with errno 0 for a link, when changes have to be polled for.
bool CTableGuard::Watch() {
    errno = 0;
    changes = CDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    struct stat table {};
    // If the table is a link, its target changes in another directory.
    isWatching = changes.IsOpen() &&
                 inotify_add_watch(changes.Get(), vxsched::cFilesDirectory,
                                   IN_MODIFY | IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_MOVE_SELF |
                                       IN_ATTRIB) != -1 &&
                 (lstat(vxsched::cTableFile, &table) == -1 || !S_ISLNK(table.st_mode));
    return isWatching;
}

void CTableGuard::Run() {
    gIsHostThread = true;
    // Others may have used the store since before the table's file was watched.
    mutexWatch.Begin();
    // The constructor's check may have failed.
    bool retry = !lastValid;
    while (!isStopping) {
        pollfd descriptors[] = {{.fd = changes.Get(), .events = POLLIN, .revents = 0},
                                {.fd = wakeups.Get(), .events = POLLIN, .revents = 0}};
        // Before a retry, unread events would end the wait at once.
        if (retry)
            descriptors[0].fd = -1;
        const int timeout = mutexWatch.LimitTimeout(
            retry ? static_cast<int>(retryInterval.Get().count()) : PollTimeout());
        if (poll(descriptors, std::size(descriptors), timeout) == -1)
            std::this_thread::sleep_for(retryInterval.Get());
        if (isStopping)
            return;
        // In this order, since a wakeup that stays unread would end every later wait at once.
        const bool mustCheck = IsWoken() || retry || HasChange();
        retry = mustCheck && !Check();
        if (mustWatchMutex.exchange(false))
            mutexWatch.Begin();
        mutexWatch.CheckIfDue();
        // A check takes a few hundred bytes per task, which are not needed until the next one.
        if (mustCheck && !retry)
            malloc_trim(0);
    }
}

// Milliseconds until the next check if no event comes.
int CTableGuard::PollTimeout() const {
    constexpr int cSecond = 1000;
    return isWatching && wakeups.IsOpen() ? cNoTimeout : cSecond;
}

bool CTableGuard::IsWoken() {
    eventfd_t ignored = 0;
    return eventfd_read(wakeups.Get(), &ignored) == 0 || wereTasksDeleted;
}

bool CTableGuard::HasChange() {
    if (isWatching)
        return ReadEvents();
    saves.replacedAll = true;  // saves before the watch were not counted
    Watch();
    try {
        return vxsched::TableState(".") != lastState;
    } catch (const std::bad_alloc&) {
        return true;  // the check is repeated until it succeeds
    }
}

// Reads all pending events and counts the saves among them. True when the table must be checked;
// other files of the directory change as well. inotify drops an event that equals the one before
// it, so consecutive closes may be reported as one. The write in between separates those of saves;
// a load of the add-in opens the table for writing and writes nothing.
bool CTableGuard::ReadEvents() {
    bool mustCheck = false;
    alignas(inotify_event) std::array<char, 4096> block{};
    for (ssize_t count = 0; (count = read(changes.Get(), block.data(), block.size())) > 0;) {
        for (const char* place = block.data(); place < block.data() + count;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(place);
            place += sizeof *event + event->len;
            mustCheck |= HandleEvent(event->mask, event->cookie, event->len > 0 ? event->name : "");
        }
    }
    return mustCheck;
}

bool CTableGuard::HandleEvent(std::uint32_t mask, std::uint32_t cookie, std::string_view name) {
    if ((mask & IN_ATTRIB) != 0) {
        // The directory itself, perhaps opened to a group.
        if (name.empty())
            vxsched::SetSemaphoreAccess(".");
        return false;
    }
    // Some saves were not counted, so any task may have been removed on purpose.
    if ((mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_MOVE_SELF)) != 0)
        saves.replacedAll = true;
    if ((mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
        isWatching = false;
        isDirectoryNew = true;
    }
    // A member of a group may not make a file of the owner's: the removal of a replacement announces
    // that the table is overwritten by it in place. One that is removed after a failure announces
    // that, too, and what is lost at that moment is not missed.
    if ((mask & IN_DELETE) != 0 && name.starts_with(vxsched::cTableName) &&
        name.substr(std::strlen(vxsched::cTableName)).starts_with(vxsched::cReplacementSuffix))
        saves.replacedAll = true;
    if ((mask & IN_MOVED_FROM) != 0 && name.find(vxsched::cSaveSuffix) != std::string_view::npos)
        saveCookie = cookie;
    if (name != vxsched::cTableName)
        return saves.replacedAll;
    mutexWatch.Begin();
    if ((mask & IN_MODIFY) != 0) {
        isModified = true;
    } else if ((mask & IN_CLOSE_WRITE) != 0) {
        saves.count += isModified ? 1 : 0;
        isModified = false;
    } else if ((mask & IN_MOVED_TO) != 0) {
        if (cookie == saveCookie)
            ++saves.count;
        else
            saves.replacedAll = true;
    }
    return (mask & IN_MODIFY) == 0;
}

// False when the check must be repeated.
bool CTableGuard::Check() {
    try {
        return TryToCheck();
    } catch (const std::exception&) {
        retryInterval.Failed();
        return false;  // out of memory; may succeed later
    }
}

bool CTableGuard::TryToCheck() {
    try {
        // Lock order: the host holds the directory lock; the writer lock is skipped, since a client
        // may hold it for many seconds; locks inside the process come after the store mutex.
        const vxsched::CStoreMutexLock lock(cLockTimeout);
        // A direct client has removed the mutex; the worker makes it anew.
        if (isWorkerRunning && !lock.IsHeld()) {
            vxsched::WakeSchedulingProcess();
            retryInterval.Failed();
            return false;
        }
        // A tick may be under way all the same, whose launches the table does not show yet.
        if (isWorkerRunning && !vxsched::IsWorkerIdle()) {
            NoteDamage();
            return false;
        }
        ReadEvents();
        if (!isWatching)
            saves.replacedAll = true;
        // A missing directory is not an empty table.
        if (access(vxsched::cFilesDirectory, F_OK) == -1) {
            ReportMissingDirectory();
            return true;
        }
        isMissingReported = false;
        lastState = vxsched::TableState(".");
        const std::string bytes = vxsched::ReadTableBytes(".");
        // Nor is a directory that was created again and has no table.
        if (lastState.empty() && isDirectoryNew && lastValid) {
            Restore(bytes, "the directory \"files\" has no table", TasksOf(*lastValid));
            return false;
        }
        // Another process may be replacing the table: the last valid one is still what a damaged
        // table that appears is repaired from.
        if (lastState.empty() && saves.replacedAll && lastValid)
            return true;
        const bool isDone = Examine(bytes);
        lastError.clear();
        retryInterval.Succeeded();
        return isDone;
    } catch (const vxsched::CError& error) {
        if (error.Code() == vxsched::EError::cBusy) {
            NoteDamage();
            return false;
        }
        retryInterval.Failed();
        if (lastError != error.what()) {
            LogError(fmt::format("cannot check the table: {}. Retrying until it succeeds.",
                                 error.what()));
            lastError = error.what();
        }
        return false;
    }
}

// Notes damage that cannot be repaired yet. Before it can be, direct clients may save what is left
// of the tasks over it, and each of their saves would count as leave to lose one.
void CTableGuard::NoteDamage() {
    const std::string state = vxsched::TableState(".");
    if (isDamageNoted || !lastValid || state == lastNoted)
        return;
    const vxsched::CTableLease lease(vxsched::TableFile("."));
    // Otherwise it may be a save that has only begun.
    if (lease.State() != vxsched::CTableLease::cHeld)
        return;
    std::string bytes;
    try {
        bytes = lease.Read();
    } catch (const vxsched::CError&) {
        return;  // what cannot be read is reported by a check
    }
    lastNoted = state;
    try {
        TasksOf(bytes);
    } catch (const vxsched::CError& error) {
        isDamageNoted = true;
        LogError(
            fmt::format("{}. It is restored as soon as the store mutex is free.", error.what()));
    }
}

void CTableGuard::ReportMissingDirectory() {
    isDirectoryNew = true;
    if (!isMissingReported)
        LogError(
            "the directory \"files\" is gone: nothing can be saved or recorded. Create it again; "
            "the last valid table is then written into it.");
    isMissingReported = true;
}

// Keeps a valid table, restores any other. False after a restore: another check is needed for what
// others have changed meanwhile.
bool CTableGuard::Examine(const std::string& bytes) {
    std::vector<TTaskEntry> tasks;
    try {
        tasks = TasksOf(bytes);
    } catch (const vxsched::CError& error) {
        const std::optional<vxsched::TBackup> backup =
            lastValid ? vxsched::TBackup{"the last valid table", TasksOf(*lastValid)}
                      : vxsched::FindBackup(".");
        const vxsched::TRepair repair =
            vxsched::PlanRepair(bytes, backup ? &*backup : nullptr, vxsched::Now());
        Restore(bytes, error.what(), repair.tasks, repair.notes);
        return false;
    }
    if (std::vector<TTaskEntry> lost = FindLost(tasks); !lost.empty()) {
        std::string names;
        for (TTaskEntry& task : lost) {
            names += fmt::format("{}\"{}\"", names.empty() ? "" : ", ", task.name);
            tasks.push_back(std::move(task));
        }
        Restore(bytes, "the table has lost " + names, std::move(tasks));
        return false;
    }
    const std::vector<TLaunchRecord> records = ReadLaunchRecords();
    const bool isOutdated = ApplyLaunchRecords(records, vxsched::Now(), tasks) > 0;
    if (wereTasksDeleted || isOutdated) {
        Restore(bytes, "the add-in could not save its table", std::move(tasks));
        return false;
    }
    // The worker would do the same at its next tick, if it were to read the table: what has saved it
    // may not have announced that.
    if (ApplyLaunchRecords(RecentLaunches(), vxsched::Now(), tasks) > 0) {
        Restore(bytes, "a process has saved the table as it was before a launch", std::move(tasks));
        return false;
    }
    // Whoever has saved it may have been killed before it could announce that.
    const bool isUnannounced = isWorkerRunning && lastValid != bytes && !vxsched::ListShows(bytes);
    if (listener)
        listener(tasks);
    // After the snapshot: should a power failure damage the table, what it is repaired from has to
    // show the launches too.
    Keep(bytes);
    SettleShown(records, tasks);
    if (isUnannounced)
        vxsched::AnnounceChange();
    return true;
}

// Whether the launch of a task that was due has removed it.
static bool IsOverAfter(const TTaskEntry& task, vxsched::TTime now) {
    if (task.next > now || task.period == 0)
        return task.next <= now;
    const vxsched::CSchedule schedule(task);
    return vxsched::StepOf(task.period).count() != 0 &&
           schedule.IsOver(schedule.FirstFrom(std::max(now, task.next + std::chrono::seconds(1))));
}

// Returns the tasks of the last valid table that are gone; none when these and the new ones are no
// more than the saves that were seen, and no damage was in between. Each call of a client removes
// or creates one task at most, so a save that does both has overwritten another client's.
std::vector<TTaskEntry> CTableGuard::FindLost(const std::vector<TTaskEntry>& tasks) const {
    std::vector<TTaskEntry> lost;
    if (!lastValid || saves.replacedAll)
        return lost;
    const vxsched::TTime now = vxsched::Now();
    std::unordered_set<std::string_view> names;
    for (const TTaskEntry& task : tasks)
        names.insert(task.name);
    const std::vector<TTaskEntry> former = TasksOf(*lastValid);
    std::unordered_set<std::string_view> created = names;
    for (const TTaskEntry& task : former) {
        created.erase(task.name);
        if (!names.contains(task.name) && !IsOverAfter(task, now))
            lost.push_back(task);
    }
    return isDamageNoted || lost.size() + created.size() > saves.count ? lost
                                                                       : std::vector<TTaskEntry>();
}

// Replaces the table by `tasks`, with the launches made since, and logs `notes`, unless a
// save may be in progress or is done by now. The caller repeats the check in any case.
void CTableGuard::Restore(const std::string& bytes, const std::string& reason,
                          std::vector<TTaskEntry> tasks, const std::vector<std::string>& notes) {
    const vxsched::CTableLease lease(vxsched::TableFile("."));
    if (!MayReplace(lease, bytes))
        return;
    if (bytes != lastDamaged)
        LogErrors(notes);
    ApplyLaunchRecords(ReadLaunchRecords(), vxsched::Now(), tasks);
    const std::string restored = vxsched::EncodeTable(tasks);
    QuarantineOnce(bytes, restored);
    // First of all a snapshot: if the host is killed while it overwrites the table, the next one
    // finds every task there.
    Keep(restored);
    if (restored != bytes && lease.State() == vxsched::CTableLease::cHeld)
        lease.Overwrite(restored);
    else if (restored != bytes)
        vxsched::ReplaceOrOverwriteTable(".", restored);
    vxsched::AnnounceChange();
    vxsched::WakeSchedulingProcess();
    LogError(fmt::format("{}: the table is restored, with {} task(s)", reason, tasks.size()));
    SettleShown(ReadLaunchRecords(), tasks);
    wereTasksDeleted = false;
    ReadEvents();
    saves = {};
    // Without the lease, events of other processes were read together with this one's.
    saves.replacedAll = lease.State() != vxsched::CTableLease::cHeld;
}

// Whether nobody is about to write the table, of which `bytes` were read. The store mutex does not
// show it: a client's load sets it free, and the bytes may be those of a save that has only begun.
bool CTableGuard::MayReplace(const vxsched::CTableLease& lease, const std::string& bytes) {
    switch (lease.State()) {
        case vxsched::CTableLease::cMissing:
            return true;
        case vxsched::CTableLease::cHeld:
            return lease.Read() == bytes;
        case vxsched::CTableLease::cWritten:
            return false;
        case vxsched::CTableLease::cUnknown:
            break;
    }
    const std::string state = vxsched::TableState(".");
    const auto now = std::chrono::steady_clock::now();
    if (unchanged.state != state)
        unchanged = {state, now};
    if (now - unchanged.since < cLongerThanAnySave)
        return false;
    LogWarning(fmt::format(
        "cannot make sure that nobody is writing the table: another user owns it, its file system "
        "has no leases, or somebody keeps it open. It has not changed for {} s, so that is "
        "assumed.",
        cLongerThanAnySave.count()));
    unchanged = {};
    return true;
}

// Quarantines a damaged table once, however often its replacement is retried.
void CTableGuard::QuarantineOnce(const std::string& bytes, const std::string& restored) {
    if (bytes == restored || bytes == lastDamaged)
        return;
    try {
        vxsched::Quarantine(".", bytes);
    } catch (const vxsched::CError& error) {
        LogWarning(error.what());
    }
    lastDamaged = bytes;
}

void CTableGuard::Keep(const std::string& bytes) {
    lastValid = bytes;
    isDamageNoted = false;
    saves = {};
    isDirectoryNew = false;
    try {
        vxsched::KeepSnapshot(".", bytes, mostSnapshots);
    } catch (const vxsched::CError& error) {
        LogWarning(fmt::format("cannot keep a snapshot of the table: {}", error.what()));
    }
}
