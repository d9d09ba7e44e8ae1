#pragma once

#include <optional>
#include <string>

#include "base/CDescriptor.h"
#include "runs/RunRecord.h"

// Held while a runner finds out whether a run of its task is under way, and makes its CRunningFile if
// none is: of several that begin at once, one launches its program. For the store of the working
// directory.
class COverlapLock {
public:
    // Blocks for a second at most, as long as others hold it; then it is not held, as on a file system
    // without such locks.
    COverlapLock();

    // The id of a run of the same task whose runner is alive; empty if there is none, or `run` is of no
    // known task. Not for a process that has a CRunningFile, which would lose its lock.
    static std::optional<std::string> FindOther(const TRunRecord& run);

private:
    CDescriptor directory;
};
