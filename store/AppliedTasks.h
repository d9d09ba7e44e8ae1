#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// The record of what was made from a file of tasks: the tasks as that file has made them, so that those
// which it has no more can be removed, and no others. A store has one record for each file, which is
// identified by its absolute path, as the tasks of a table (EncodeTable()). Concurrent writers of one record:
// the last one wins. The functions block for disk access only.

// The record of a file of tasks; empty if there is none. After a kill in the middle of a change it has what
// either record has. Throws CError: cRefused for one that cannot be read as tasks, cNoAccess, cFailed.
std::vector<TTaskEntry> ReadAppliedTasks(const std::filesystem::path& directory,
                                         const std::string& file);

// A change of the record, which is made together with one of the table: written before that, so that a full
// disk keeps both from being changed, and in force afterwards.
class CAppliedTasksChange {
public:
    // Writes the new record next to the present one. Throws CError (cNoAccess, cFailed).
    CAppliedTasksChange(const std::filesystem::path& directory, const std::string& file,
                        const std::vector<TTaskEntry>& tasks);
    CAppliedTasksChange(const CAppliedTasksChange&) = delete;
    CAppliedTasksChange& operator=(const CAppliedTasksChange&) = delete;
    // Removes the new record, unless it is in force.
    ~CAppliedTasksChange();

    // Has the new record take the place of the present one. Needs no room on the disk. Throws CError (cFailed).
    void Make();

    // Keeps both records, since it is not known whether the table was changed.
    void LeaveOpen() { isSettled = true; }

private:
    const std::filesystem::path record;
    const std::filesystem::path fresh;
    bool isSettled = false;
};

}  // namespace vxsched
