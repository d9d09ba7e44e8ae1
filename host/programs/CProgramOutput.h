#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/CDescriptor.h"

// Where launched programs write their standard output and error.
class CProgramOutput {
public:
    // `where` is "inherit" (where the host's own go), "journal", or a directory with a file for
    // each task. The directory is created if it is missing; a file is moved to .1 when a launch
    // finds it larger than `limit` bytes. Throws CHostError (cNoDirectory) when the directory
    // cannot be created or written to. If there is no journal, the log is warned, and programs
    // inherit.
    CProgramOutput(const std::string& where, std::uint64_t limit);

    using TWarn = std::function<void(const std::string&)>;

    // Opens the output of one launch of a task; `task` is empty when the task is unknown. Returns a
    // closed descriptor when the program is to inherit, also for a file or stream that cannot be
    // opened, which `warn` logs: a launch never fails for its output. Does not block on a pipe. Any
    // thread may call it.
    CDescriptor Open(const std::optional<std::string>& task, const TWarn& warn) const;

private:
    // `fileName` is the encoded name of the task, without the directory and ".log".
    CDescriptor OpenFile(const std::string& fileName, const TWarn& warn) const;

    const std::string where;
    const std::uint64_t limit;
    // The log has been warned of it, and is not again for each launch.
    mutable std::atomic<bool> isJournalMissing{false};
};
