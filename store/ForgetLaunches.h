#pragma once

#include <filesystem>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Removes the launch records that a host has in `directory` for the due times that tasks have in
// `after` and not in `before`, the present table: for a change that is about to make them due, so
// that the host launches them again. Without the records that it has kept it cannot take the change
// for a save of a table from before the launch. `before` shows the launches that are forgotten, so
// no record is needed for these any more. The caller holds the store mutex, and no tick is under
// way. Blocks for disk access only; a record that cannot be removed stays.
void ForgetLaunches(const std::filesystem::path& directory, const std::vector<TTaskEntry>& before,
                    const std::vector<TTaskEntry>& after);

}  // namespace vxsched
