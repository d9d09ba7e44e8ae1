#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>

namespace vxsched {

// The names of the tasks that are paused, for what a command reports besides its change: read without
// the store mutex, so that the command waits for that once and not twice. Empty if the table cannot be
// read at this moment, as in the middle of a direct client's save.
std::optional<std::set<std::string>> FindPausedTasks(const std::filesystem::path& directory);

}  // namespace vxsched
