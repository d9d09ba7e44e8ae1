#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <vxsched/Table.h>
#include "base/CDescriptor.h"
#include "host/recovery/CMutexWatch.h"
#include "host/recovery/CRetryInterval.h"
#include "store/CTableLease.h"

// Guards the table while the host runs, on a thread of its own: whenever the file changes, it is
// read under the store mutex and checked. A valid table is kept as a snapshot. A damaged table, or
// one that has lost tasks, is replaced by the last valid one, to which the launches made since are
// applied; the worker is notified.
//
// Which tasks count as removed on purpose: each observed save may have removed one task, or created
// one; a task that runs once and was due may be gone; a process that replaces the whole table (an
// import, a repair, a change that renames a task) may have removed any.
class CTableGuard {
public:
    // Is called with each table in which no task is lost, under the store mutex, on the thread that
    // checks: before anything of the table is kept, which waits for the disk.
    using TListener = std::function<void(const std::vector<vxsched::TTaskEntry>& tasks)>;

    // Guards the table of the working directory, which has just been loaded, and checks it once.
    // Waits briefly for the store mutex. Keeps at most `snapshots` snapshots; 0 disables them.
    explicit CTableGuard(std::size_t snapshots, TListener validTableListener = {});
    ~CTableGuard();

    // Begins to guard. The worker runs from now on. If no thread can be started, which is logged,
    // nothing is guarded.
    void Begin();

    // Stops and waits for a check in progress. To be called before the add-in is destroyed, and the
    // store mutex with it.
    void End();

    CTableGuard(const CTableGuard&) = delete;
    CTableGuard& operator=(const CTableGuard&) = delete;

    // The add-in has emptied its list after a failure. Any thread may call it; does not block.
    void TasksDeleted();

    // Has the store mutex watched, see CMutexWatch: a thread of this process waits for it. Any
    // thread may call it; does not block.
    void WatchMutex();

private:
    struct TSaves {
        std::size_t count = 0;  // saves, each of which may have removed a task
        bool replacedAll = false;
    };

    void Run();
    bool Watch();
    int PollTimeout() const;
    bool IsWoken();
    bool HasChange();
    bool ReadEvents();
    bool HandleEvent(std::uint32_t mask, std::uint32_t cookie, std::string_view name);
    std::vector<vxsched::TTaskEntry> FindLost(const std::vector<vxsched::TTaskEntry>& tasks) const;

    // Check() never throws. TryToCheck(), which it alone calls, takes the store mutex and not the
    // writer lock. That one alone calls Examine, Restore, MayReplace, QuarantineOnce and Keep,
    // directly or through each other: under that mutex, on the thread that checks (the
    // constructor's, then the guard's), while the worker is idle or does not run yet.
    bool Check();
    bool TryToCheck();
    void NoteDamage();
    void ReportMissingDirectory();
    bool Examine(const std::string& bytes);
    void Restore(const std::string& bytes, const std::string& reason,
                 std::vector<vxsched::TTaskEntry> tasks,
                 const std::vector<std::string>& notes = {});
    bool MayReplace(const vxsched::CTableLease& lease, const std::string& bytes);
    void QuarantineOnce(const std::string& bytes, const std::string& restored);
    void Keep(const std::string& bytes);

    // Set by any thread.
    CDescriptor wakeups;  // an eventfd: check the table, or stop
    std::atomic<bool> isStopping{false};
    std::atomic<bool> wereTasksDeleted{false};
    std::atomic<bool> isWorkerRunning{false};
    std::atomic<bool> mustWatchMutex{false};

    // Of the thread that checks: the constructor's, then the guard's own.
    CRetryInterval retryInterval;
    CDescriptor changes;  // inotify
    bool isWatching = false;
    bool isDirectoryNew = false;  // "files" is not the directory that had the last valid table
    bool isMissingReported = false;
    std::string lastState;  // of the file, for when it cannot be watched
    TSaves saves;
    bool isModified = false;       // between a write and the close of the table
    std::uint32_t saveCookie = 0;  // of the rename that may have made a save the table
    // Of a file that may have to be restored and that somebody has open, or for which no lease is
    // granted: its state, and since when it has been that.
    struct {
        std::string state;
        std::chrono::steady_clock::time_point since;
    } unchanged;
    bool isDamageNoted = false;  // since the last valid table
    std::string lastNoted;       // the state of the file that NoteDamage() has read
    // As bytes, which take less than half the memory of decoded tasks.
    std::optional<std::string> lastValid;
    const std::size_t mostSnapshots;
    const TListener listener;
    CMutexWatch mutexWatch;
    std::optional<std::string> lastDamaged;  // has been reported and quarantined
    std::string lastError;                   // has been logged; not again at every retry
    std::thread thread;
};
