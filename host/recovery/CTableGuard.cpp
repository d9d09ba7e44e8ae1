#include "host/recovery/CTableGuard.h"

#include <CEvent.h>
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unordered_set>

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include <vxsched/SchedulingProcess.h>
#include "host/CHostLog.h"
#include "host/HostThread.h"
#include "host/recovery/LaunchRecords.h"
#include "store/Backups.h"
#include "store/CStoreMutexLock.h"
#include "store/StopEvent.h"
#include "store/TableFile.h"

using vxsched::TTaskEntry;

namespace {

constexpr char cTable[] = "scheduler.dat";
constexpr std::chrono::milliseconds cPatience(200);  // for the mutex; a tick may hold it for long
constexpr int cAgain = 100;                          // milliseconds until the next try
constexpr int cWithoutLimit = -1;

std::vector<TTaskEntry> TasksOf(const std::string& bytes) {
    return vxsched::DecodeIntactTable(bytes, vxsched::Now());
}

void Tell(const std::vector<std::string>& notes) {
    for (const std::string& note : notes)
        LogError(note);
}

}  // namespace

CTableGuard::CTableGuard(std::size_t snapshotCount)
    : calls(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), snapshots(snapshotCount) {
    if (!Watch() && errno != 0)
        LogWarning(
            fmt::format("cannot watch the folder \"files\": {}. It is looked at each second.",
                        std::strerror(errno)));
    Look();
}

void CTableGuard::Begin() {
    besideTheWorker = true;
    try {
        thread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
        LogWarning(
            fmt::format("cannot look after the table: {}. Look at the limits of threads and "
                        "memory.",
                        error.what()));
    }
}

CTableGuard::~CTableGuard() {
    End();
}

void CTableGuard::End() {
    stopping = true;
    eventfd_write(calls.Get(), 1);
    if (thread.joinable())
        thread.join();
}

void CTableGuard::TasksDeleted() {
    deleted = true;
    eventfd_write(calls.Get(), 1);
}

// The folder is another one after it was moved or removed, and made again.
bool CTableGuard::Watch() {
    errno = 0;
    changes = CDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    std::error_code ignored;
    // What a link leads to changes elsewhere.
    isWatching =
        changes.IsOpen() &&
        inotify_add_watch(changes.Get(), "files",
                          IN_MODIFY | IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_MOVE_SELF) != -1 &&
        !std::filesystem::is_symlink(vxsched::TableFile("."), ignored);
    return isWatching;
}

void CTableGuard::Run() {
    MarkHostThread();
    // What the first look could not see is looked at again.
    bool again = !lastGood;
    while (!stopping) {
        pollfd sources[] = {{.fd = changes.Get(), .events = POLLIN, .revents = 0},
                            {.fd = calls.Get(), .events = POLLIN, .revents = 0}};
        // Before another try what is still to be read would end the wait at once.
        if (again)
            sources[0].fd = -1;
        if (poll(sources, std::size(sources), again ? cAgain : Rest()) == -1)
            std::this_thread::sleep_for(std::chrono::milliseconds(cAgain));
        if (stopping)
            return;
        const bool looks = again || HasChange();
        again = looks && !Look();
        // What a look needed, some hundred bytes a task, is not needed until the next one.
        if (looks && !again)
            malloc_trim(0);
    }
}

// Milliseconds until the next look of its own accord.
int CTableGuard::Rest() const {
    constexpr int cSecond = 1000;
    return isWatching && calls.IsOpen() ? cWithoutLimit : cSecond;
}

bool CTableGuard::HasChange() {
    eventfd_t ignored = 0;
    if (eventfd_read(calls.Get(), &ignored) == 0 || deleted)
        return true;
    // Other files of the folder are written as well.
    if (isWatching)
        return TakeEvents();
    saves.replacedWhole = true;  // of what went before a watch nothing is known
    Watch();
    return vxsched::TableState(".") != lastSeen;
}

// Counts the saves that the events tell of; true when there is something to look at. The system leaves
// out an event that is like the one before it, so several closes in a row may be one: what is written
// in between keeps those of saves apart. A load of the add-in opens the table for writing as well, and
// writes nothing.
bool CTableGuard::TakeEvents() {
    bool isTouched = false;
    alignas(inotify_event) std::array<char, 4096> block{};
    for (ssize_t count = 0; (count = read(changes.Get(), block.data(), block.size())) > 0;) {
        for (const char* place = block.data(); place < block.data() + count;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(place);
            place += sizeof *event + event->len;
            isTouched |= TakeEvent(event->mask, event->cookie, event->len > 0 ? event->name : "");
        }
    }
    return isTouched;
}

bool CTableGuard::TakeEvent(std::uint32_t what, std::uint32_t move, std::string_view name) {
    // Where saves went by uncounted, nothing can be said of what is gone.
    if ((what & (IN_Q_OVERFLOW | IN_IGNORED | IN_MOVE_SELF)) != 0)
        saves.replacedWhole = true;
    if ((what & (IN_IGNORED | IN_MOVE_SELF)) != 0)
        isWatching = false;
    if ((what & IN_MOVED_FROM) != 0 && name.find(".save-") != std::string_view::npos)
        moveOfASave = move;
    if (name != cTable)
        return saves.replacedWhole;
    if ((what & IN_MODIFY) != 0) {
        isWritten = true;
    } else if ((what & IN_CLOSE_WRITE) != 0) {
        saves.count += isWritten ? 1 : 0;
        isWritten = false;
    } else if ((what & IN_MOVED_TO) != 0) {
        if (move == moveOfASave)
            ++saves.count;
        else
            saves.replacedWhole = true;
    }
    return (what & IN_MODIFY) == 0;
}

// False when it is to be tried again.
bool CTableGuard::Look() {
    try {
        const vxsched::CStoreMutexLock lock(cPatience);
        // A client that loaded the library at a bad moment may have let this one in beside a tick,
        // whose starts the table does not show yet.
        if (besideTheWorker && CEvent::UseOf(cStopEventName).waiters == 0)
            return false;
        TakeEvents();
        if (!isWatching)
            saves.replacedWhole = true;
        // Without the folder there is no table, which is not to be taken for an empty one.
        if (access("files", F_OK) == -1)
            return true;
        lastSeen = vxsched::TableState(".");
        const bool isSettled = LookAt(vxsched::ReadTableBytes("."));
        trouble.clear();
        return isSettled;
    } catch (const vxsched::CError& error) {
        if (error.Code() != vxsched::EError::cBusy && trouble != error.what()) {
            trouble = error.what();
            LogError(fmt::format("cannot look after the table: {}; trying on", trouble));
        }
        return false;
    } catch (const std::exception&) {
        return false;  // out of memory, which may pass
    }
}

// False when something was restored: what others did meanwhile is seen by another look.
bool CTableGuard::LookAt(const std::string& bytes) {
    std::vector<TTaskEntry> tasks;
    try {
        tasks = TasksOf(bytes);
    } catch (const vxsched::CError& error) {
        const std::optional<vxsched::TBackup> source =
            lastGood ? vxsched::TBackup{"the last good table", TasksOf(*lastGood)}
                     : vxsched::FindBackup(".");
        const vxsched::TRepair repair =
            vxsched::PlanRepair(bytes, source ? &*source : nullptr, vxsched::Now());
        if (bytes != damaged)
            Tell(repair.notes);
        Restore(bytes, error.what(), repair.tasks);
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
    const std::vector<TLaunchRecord> marks = ReadLaunchRecords();
    const bool isOutdated = ApplyLaunchRecords(marks, vxsched::Now(), tasks) > 0;
    if (deleted || isOutdated) {
        Restore(bytes, "the add-in could not save its table", std::move(tasks));
        return false;
    }
    for (const TLaunchRecord& mark : FindSettled(marks, tasks))
        RemoveLaunchRecord(mark);
    Keep(bytes);
    return true;
}

// The tasks of the last good table that are gone, if they are more than can have been removed.
std::vector<TTaskEntry> CTableGuard::FindLost(const std::vector<TTaskEntry>& tasks) const {
    std::vector<TTaskEntry> lost;
    if (!lastGood || saves.replacedWhole)
        return lost;
    const vxsched::TTime now = vxsched::Now();
    std::unordered_set<std::string_view> names;
    for (const TTaskEntry& task : tasks)
        names.insert(task.name);
    for (const TTaskEntry& task : TasksOf(*lastGood)) {
        const bool hasRun = task.period == 0 && task.next <= now;
        if (!hasRun && !names.contains(task.name))
            lost.push_back(task);
    }
    return lost.size() > saves.count ? lost : std::vector<TTaskEntry>();
}

// The caller holds the mutex.
void CTableGuard::Restore(const std::string& bytes, const std::string& why,
                          std::vector<TTaskEntry> tasks) {
    ApplyLaunchRecords(ReadLaunchRecords(), vxsched::Now(), tasks);
    const std::string wanted = vxsched::EncodeTable(tasks);
    KeepDamaged(bytes, wanted);
    if (wanted != bytes)
        vxsched::ReplaceOrOverwriteTable(".", wanted);
    vxsched::AnnounceChange();
    vxsched::WakeSchedulingProcess();
    LogError(fmt::format("{}: the table is restored, with {} task(s)", why, tasks.size()));
    for (const TLaunchRecord& mark : FindSettled(ReadLaunchRecords(), tasks))
        RemoveLaunchRecord(mark);
    deleted = false;
    TakeEvents();
    Keep(wanted);
    saves.replacedWhole = true;  // the events of others may have gone with those of this restore
}

// Once, however often the table in its place has to be tried.
void CTableGuard::KeepDamaged(const std::string& bytes, const std::string& wanted) {
    if (bytes == wanted || bytes == damaged)
        return;
    try {
        vxsched::Quarantine(".", bytes);
    } catch (const vxsched::CError& error) {
        LogWarning(error.what());
    }
    damaged = bytes;
}

void CTableGuard::Keep(const std::string& bytes) {
    if (!lastGood || *lastGood != bytes)
        lastGood = std::make_shared<const std::string>(bytes);
    saves = {};
    try {
        snapshots.Keep(lastGood);
    } catch (const std::system_error& error) {
        LogWarning(fmt::format("no snapshot of the table: {}", error.what()));
    }
}
