#pragma once

#include <filesystem>

#include <vxsched/Store.h>

namespace vxsched {

// The wait status of a run that has ended, as of waitpid(). Blocks for disk access only. Throws
// CError (cFailed) if it cannot be known: the run has no runner, its runner was killed, or there is
// no record.
int FindWaitStatus(const std::filesystem::path& directory, const TRun& run);

}  // namespace vxsched
