#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "runs/RunRecord.h"

// Writes the run records of the working directory to files/history.jsonl, one line for each, each
// by one write(). The file is opened for each record, so that it may be renamed or removed at any
// time. Any thread of any process may call Add(): an advisory lock of the file keeps the writers
// apart.
class CRunHistory {
public:
    // Before a line would take the file beyond `mostBytes` bytes, the file is renamed to
    // history.jsonl.1, replacing an older one. 0 disables the history. `logWarning` is called with
    // the message of each failure, on the thread that calls Add() and with the object's mutex held.
    CRunHistory(std::uint64_t mostBytes, std::function<void(const std::string&)> logWarning)
        : limit(mostBytes), warn(std::move(logWarning)) {}

    // Appends a record. Blocks for disk access, and once for a second at most while another process
    // has the file locked; then records are appended without a rotation, until the lock is free. A
    // FIFO is not waited for. Returns whether the record is written, or none is kept. One that is not
    // is reported to `logWarning`; a partial line is removed again.
    bool Add(const TRunRecord& record);

    // Waits until what was added is on the disk. A failure is reported to `logWarning`.
    void Sync();

private:
    const std::uint64_t limit;
    const std::function<void(const std::string&)> warn;
    std::mutex mutex;  // held while one record is written, so that threads need not poll the lock
    bool isHeldUp = false;  // the lock could not be had; later records do not wait for it
};
