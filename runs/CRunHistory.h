#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "runs/RunRecord.h"

// The run records of a directory, in files/history.jsonl: one line a record, each written by one
// write. The file is opened for each, so it may be moved away at any time. Any thread may add.
class CRunHistory {
public:
    // Of the working directory. Before a line would take the file beyond `mostBytes` bytes, the file is
    // moved to history.jsonl.1; 0 keeps no records. `logWarning` gets what went wrong.
    CRunHistory(std::uint64_t mostBytes, std::function<void(const std::string&)> logWarning)
        : limit(mostBytes), warn(std::move(logWarning)) {}

    // A record that cannot be written is logged as a warning and lost; no half of one is left.
    void Add(const TRunRecord& record);

private:
    const std::uint64_t limit;
    const std::function<void(const std::string&)> warn;
    std::mutex mutex;
};
