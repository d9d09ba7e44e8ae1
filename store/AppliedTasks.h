#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// The record of what was made from a file of tasks: the tasks as that file has made them, so that those
// which it has no more can be removed, and no others. A store has one record for each file, which is
// identified by its absolute path, as the tasks of a table (EncodeTable()).
//
// A record may name tasks that were never made, as after a kill; it never lacks one that was. Concurrent
// writers of one record: the last one wins. The functions block for disk access only.

// The record of a file of tasks; empty if there is none. Throws CError: cRefused for one that cannot be
// read as tasks, cNoAccess, cFailed.
std::vector<TTaskEntry> ReadAppliedTasks(const std::filesystem::path& directory,
                                         const std::string& file);

// Replaces it in one step; the record survives a power failure from the return on. Throws CError
// (cNoAccess, cFailed); the old record stays then.
void WriteAppliedTasks(const std::filesystem::path& directory, const std::string& file,
                       const std::vector<TTaskEntry>& tasks);

}  // namespace vxsched
