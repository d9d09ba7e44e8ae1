#pragma once

#include <cstdint>
#include <mutex>

#include "runs/RunRecord.h"

// The run records of a directory, in files/history.jsonl: one line a record, each written by one
// write. The file is opened for each, so it may be moved away at any time. Any thread may add.
class CRunHistory {
public:
    // Of the working directory. Before a line would take the file beyond `mostBytes` bytes, the file is
    // moved to history.jsonl.1; 0 keeps no records.
    explicit CRunHistory(std::uint64_t mostBytes) : limit(mostBytes) {}

    // A record that cannot be written is logged and lost; no half of one stays behind.
    void Add(const TRunRecord& record);

private:
    const std::uint64_t limit;
    std::mutex mutex;
};
