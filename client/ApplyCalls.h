#pragma once

#include <filesystem>
#include <vector>

#include "client/Request.h"
#include "store/CNamedTasks.h"
#include "store/MergeChanges.h"

namespace vxsched {

// What the calls of a request have made of the tasks.
class CAppliedCalls {
public:
    explicit CAppliedCalls(std::vector<TTaskEntry> table) : tasks(std::move(table)) {}

    // Makes one call; of a run only the conditions are checked. In a change process `directory` is the
    // working directory. Returns false, without an effect, if the task must be as seen and is not.
    // Throws CError (cNotFound, cRefused) if the call cannot be made. Blocks for disk access only.
    bool Apply(const std::filesystem::path& directory, const TCall& call, bool evenIfDue);

    // The tasks after the calls so far.
    CNamedTasks tasks;
    std::vector<TRename> renames;
    std::vector<TTaskEntry> made;  // by cCreate, under the names that they have then

private:
    void Create(const TCall& call, TTaskEntry* task);
};

}  // namespace vxsched
