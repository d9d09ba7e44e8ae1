#pragma once

#include <optional>
#include <string>
#include <vector>

#include "runs/RunRecord.h"

namespace vxsched {

// The runs and missed due times of a store.
struct THistory {
    std::vector<TRunRecord> runs;       // oldest first
    std::vector<std::string> problems;  // messages about lines that were skipped
};

// Reads files/history.jsonl and the older history.jsonl.1, for one task or, without `task`, for
// all, and the runs whose runner has died and that nobody has recorded yet. A missing file has no
// runs. Takes no lock; others may write meanwhile. Blocks for disk access only. Throws CError
// (cNoAccess) if a file cannot be read. Any thread may call it.
THistory ReadHistory(const std::string& directory, const std::optional<std::string>& task);

// The record of the run with that id, likewise; empty if there is none. Reads few lines of a long
// history.
std::optional<TRunRecord> FindRecord(const std::string& directory, const std::string& id);

// The record of the last attempt of the run with that id, the only one unless it was retried.
std::optional<TRunRecord> FindLastAttempt(const std::string& directory, const std::string& id);

// Whether the run with that id has a record. A history that cannot be read has none.
bool IsRecorded(const std::string& directory, const std::string& id);

}  // namespace vxsched
