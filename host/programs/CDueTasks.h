#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <vxsched/Table.h>

// Finds the task that a launch is made for. The add-in passes a program and a parameter only. The
// table's file still holds the due times during a tick, since the add-in saves it after the last
// launch.
//
// If several due tasks have the same program and parameter, the first in the table is taken for
// which no launch of this tick was found yet. The add-in walks the table in that order, except that
// it goes back to the beginning after a task that runs once: such duplicates may then be mistaken
// for each other.
//
// A process that loads the library in the middle of a tick reschedules tasks in the file, but not
// in the tick. So a task that is not due in the current table is searched for in the previous one
// as well.
//
// For one thread at a time.
class CDueTasks {
public:
    struct TTask {
        std::string name;
        std::optional<std::chrono::sys_seconds> due;  // none: the task was not due
    };

    // Searches the table in the working directory. Reads it without the store mutex: the caller is
    // part of the tick, which holds it. Returns nothing when the table has no such task, or cannot
    // be read, which is logged.
    std::optional<TTask> Find(const std::string& program, const std::string& parameter);

    // Searches the given tasks. `state` identifies the version of the file that they were read
    // from.
    std::optional<TTask> Find(const std::vector<vxsched::TTaskEntry>& tasks,
                              const std::string& state, vxsched::TTime now,
                              const std::string& program, const std::string& parameter);

private:
    struct TVersion {
        std::string state;
        std::vector<vxsched::TTaskEntry> tasks;
        std::set<std::size_t> launched;  // indices of tasks for which a launch was found
    };

    static std::optional<TTask> FindDue(TVersion& table, vxsched::TTime now,
                                        const std::string& program, const std::string& parameter);

    TVersion current;
    TVersion previous;
};
