#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Owed launches, in files/owed/: one file for each launch that came due and that the system refused
// for want of processes. The host writes and removes them (host/recovery/OwedLaunches.h). A file
// holds a table of the one task, whose `next` is the due time; its name ends with "@" and that time
// in seconds. It is empty once the launch was made.

struct TOwedLaunch {
    std::string task;
    TTime due;
    std::string program;  // as launched
    std::string parameter;
    std::uint32_t period = 0;  // of the task; 0: the table does not have the task any more
    TTime formerStart{};       // the task's last start when it came due
};

// Returns the launch that a file holds; nothing if it was made, or if the file is not one of an
// owed launch. Takes no lock. Throws CError if the file cannot be read or is damaged. Any thread may
// call these functions.
std::optional<TOwedLaunch> ReadOwedLaunch(const std::filesystem::path& file);

// Returns the launches that are owed in a working directory, in the order of their due times. What
// this user may not read is left out.
std::vector<TOwedLaunch> FindOwedLaunches(const std::filesystem::path& directory);

}  // namespace vxsched
