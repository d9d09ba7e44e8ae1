#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include <vxsched/RunningPrograms.h>
#include <vxsched/Table.h>

namespace vxsched {

// A snapshot of the processes of a store's tasks. A process is known by the run that it is of, also
// if it has executed another program since, as a script that ends in exec; one that the add-in has
// launched in another host has no run, and is known by the task's program and parameter
// (CRunningPrograms). Immutable: threads may share one.
class CRunningTasks {
public:
    // Blocks as CRunningPrograms() does. A run that this user may not read is left out.
    explicit CRunningTasks(const std::string& directory);

    // The ids, in ascending order, of the processes of a task. That of a program that has not been
    // launched yet is its runner's.
    std::vector<pid_t> Find(const TTaskEntry& task) const;

private:
    CRunningPrograms programs;
    std::unordered_multimap<std::string, pid_t> runs;  // by the file name of their task
};

}  // namespace vxsched
