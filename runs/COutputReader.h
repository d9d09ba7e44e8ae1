#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "base/CDescriptor.h"
#include "runs/OutputHeader.h"

namespace vxsched {

// Reads the file of a run's output, also while the run writes it. For one thread at a time.
class COutputReader {
public:
    // Throws CError: cNoAccess or cFailed if the file cannot be opened.
    explicit COutputReader(const std::string& path);

    // Returns the next bytes of the output, at most some hundred thousand, from its begin or from
    // the oldest byte that the file still has; empty if there are no more for now. Blocks for disk
    // access only. `end` is the first byte of the output that is not wanted. Throws CError
    // (cFailed) if the file is not one of a run's output.
    std::string Next(std::uint64_t end = std::numeric_limits<std::uint64_t>::max());

    // The number of bytes that the run has written by now. Throws as Next().
    std::uint64_t Written() const { return ReadHeader().written; }

    // The number of bytes before the last Next()'s that the file had no more: overwritten since the
    // Next() before.
    std::uint64_t Lost() const { return lost; }

    // To wait for more by inotify.
    const std::string& Path() const { return path; }

private:
    TOutputHeader ReadHeader() const;

    const std::string path;
    CDescriptor file;
    std::uint64_t next = 0;  // byte of the output
    std::uint64_t lost = 0;
};

}  // namespace vxsched
