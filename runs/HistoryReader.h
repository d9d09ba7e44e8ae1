#pragma once

#include <optional>
#include <string>
#include <vector>

#include "runs/RunRecord.h"

namespace vxsched {

// What the hosts of a directory recorded of runs and missed times, the oldest first.
struct THistory {
    std::vector<TRunRecord> runs;
    std::vector<std::string> problems;  // lines that make no sense, and where; they are left out
};

// Reads files/history.jsonl and the older half beside it, of one task or of all. A directory without
// them has no runs. Throws CError (cNoAccess) for a file that may not be read.
THistory ReadHistory(const std::string& directory, const std::optional<std::string>& task);

}  // namespace vxsched
