#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vxsched {

// Messages for an operator about a table that may have lost its tasks. Nothing is restored, since
// they may have been removed on purpose. The functions block for disk access only.

// For a table that has no tasks and is in that state, "empty" or "missing": its youngest backup, the
// tasks there that should still be in the table, and how to restore them. Empty if there are none.
// The caller holds the store mutex or has read the table under it.
std::optional<std::string> DescribeLostTasks(const std::filesystem::path& directory,
                                             std::string_view state);

// The same for a directory whose table is missing; empty if it is there.
std::optional<std::string> DescribeMissingTable(const std::filesystem::path& directory);

}  // namespace vxsched
