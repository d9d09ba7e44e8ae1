#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <vxsched/Table.h>
#include "base/CDescriptor.h"
#include "host/recovery/CSnapshots.h"

// Looks after the table while the host runs, on a thread of its own: whenever the file changes it is
// read under the store mutex. A good one is kept as a snapshot; in the place of a damaged one, or of
// one that has lost tasks other than by their removal, the last good one is put, with the starts that
// were made meanwhile, and the worker is told.
//
// What counts as a removal: each save that was seen may take one task away, a task that ran once and
// was due may be gone, and who replaces the whole table (an import, a repair) may do anything.
class CTableGuard {
public:
    // Of the working directory, whose table has just been loaded.
    explicit CTableGuard(std::size_t snapshots);
    ~CTableGuard();

    // From now on, beside the worker. Without a thread for it, which is logged, nothing is looked after.
    void Begin();

    // Before the add-in is destroyed, and the store mutex with it.
    void End();

    CTableGuard(const CTableGuard&) = delete;
    CTableGuard& operator=(const CTableGuard&) = delete;

    // The add-in has emptied its list for a failure. From any thread; does not wait.
    void TasksDeleted();

private:
    struct TSaves {
        std::size_t count = 0;  // that may each have removed a task
        bool replacedWhole = false;
    };

    void Run();
    bool Watch();
    int Rest() const;
    bool HasChange();
    bool TakeEvents();
    bool TakeEvent(std::uint32_t what, std::uint32_t move, std::string_view name);
    bool Look();
    bool LookAt(const std::string& bytes);
    void Restore(const std::string& bytes, const std::string& why,
                 std::vector<vxsched::TTaskEntry> tasks);
    std::vector<vxsched::TTaskEntry> FindLost(const std::vector<vxsched::TTaskEntry>& tasks) const;
    void KeepDamaged(const std::string& bytes, const std::string& wanted);
    void Keep(const std::string& bytes);

    CDescriptor changes;  // inotify
    bool isWatching = false;
    std::string lastSeen;  // of the table, where nothing is watched
    CDescriptor calls;     // an eventfd: something is to be looked at
    std::atomic<bool> stopping{false};
    std::atomic<bool> deleted{false};
    std::atomic<bool> besideTheWorker{false};
    TSaves saves;
    bool isWritten = false;         // the table, by whoever has it open
    std::uint32_t moveOfASave = 0;  // that may have brought it to the table's place
    // As bytes, which take less than half the memory of tasks.
    std::shared_ptr<const std::string> lastGood;
    CSnapshots snapshots;
    std::optional<std::string> damaged;  // the table that was told of and put aside last
    std::string trouble;                 // that was logged last, so that it is not at every try
    std::thread thread;
};
