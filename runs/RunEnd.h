#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "runs/RunRecord.h"

namespace vxsched {

// Waits until a run in the store of a directory has ended, and no further attempt of it goes on, for at
// most `limit`, or without limit if that is empty; false if it still runs then. A run has ended when its
// runner has. What a program leaves behind is not waited for. `id` is that of a run that was launched.
bool WaitForRun(const std::string& directory, const std::string& id,
                std::optional<std::chrono::nanoseconds> limit = {});

// How a run, or the last attempt of it, has ended, by what its runner has left or by the history;
// cUnknown if there is no record of the run, as without a history. Blocks for disk access only. Throws
// CError (cNoAccess) if only the history may have it, and that cannot be read.
TRunRecord FindEnd(const std::string& directory, const std::string& id);

// Whether an attempt after `run` has begun, by the files of runs and the history; false if that cannot
// be read. Blocks for disk access only. The file of `run` is not opened: the caller of RecordDeadRunners()
// may call this for it.
bool HasLaterAttempt(const std::string& directory, const TRunRecord& run);

}  // namespace vxsched
