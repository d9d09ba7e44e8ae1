#pragma once

#include <vector>

#include "base/CDescriptor.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"

// Held while a runner finds out whether a run of its task is under way, and makes its CRunningFile if
// none is: of several that begin at once, one launches its program. For the store of the working
// directory.
class COverlapLock {
public:
    // Blocks for a second at most, as long as others hold it; then it is not held, as on a file system
    // without such locks.
    COverlapLock();

    // The other runs of the same task whose runner or program is alive; none if `run` is of no known task. One that
    // waits for another has that one's id in `underWay`.
    static std::vector<vxsched::TRunning> FindOthers(const TRunRecord& run);

private:
    CDescriptor directory;
};
