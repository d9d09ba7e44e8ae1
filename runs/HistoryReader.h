#pragma once

#include <optional>
#include <string>
#include <vector>

#include "runs/RunRecord.h"

namespace vxsched {

// The runs and missed due times that the hosts of a directory have recorded.
struct THistory {
    std::vector<TRunRecord> runs;       // oldest first
    std::vector<std::string> problems;  // messages about lines that were skipped
};

// Reads files/history.jsonl and the older history.jsonl.1, for one task or, without `task`, for
// all. A missing file has no runs. Takes no lock; a host may write meanwhile. Blocks for disk
// access only. Throws CError (cNoAccess) if a file cannot be read. Any thread may call it.
THistory ReadHistory(const std::string& directory, const std::optional<std::string>& task);

// The record of the run with that id, likewise; empty if there is none. Reads few lines of a long
// history.
std::optional<TRunRecord> FindRecord(const std::string& directory, const std::string& id);

}  // namespace vxsched
