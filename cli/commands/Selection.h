#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/commands/Commands.h"

namespace vxsched {

// Which tasks a command changes, as typed.
struct TSelection {
    TNames patterns = {};  // names, or patterns as of a shell: *, ? and [...]
    bool all = false;
    // What to do about a name that the table does not have, if it is not just mistyped.
    const char* advice = "see vxsched list";
};

// Calls `change` with the names of the selected tasks, each once, in the order in which they were
// typed; those of a pattern in the table's. What is the name of a task is no pattern. Reads the table if
// there is a pattern, or several names, which are then required; if one of these tasks is gone by the
// time of the change, the selection is made anew. Throws CUsageError without names or with both, CError
// (cNotFound) for a name or a pattern that selects nothing, and what `change` throws. The selection of
// all tasks may be empty.
void ForSelected(const TCommon& common, const TSelection& selection,
                 const std::function<void(const TNames& names)>& change);

}  // namespace vxsched
