#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

// Two changes of one table that neither saw the other's: both read `base`; one has saved `theirs`,
// and `ours` is about to replace it. Returns the bytes that hold both. A plain function of its
// arguments.
//
// Tasks are told apart by name, and compared field by field: what only one side has changed is as
// that side left it, and what both have changed is as in `theirs`. A task that one side has removed
// is gone, unless it ran once and the other has given it another due time. New tasks of `ours` come
// last. If any of the three is no table, or has two tasks of one name, the result is `ours`.
std::string MergeChanges(std::string_view base, std::string ours, std::string_view theirs);

// A new name for a task.
struct TRename {
    std::string from;
    std::string to;
};

// Returns the table after the renames, made one after the other; one whose task is not in the table,
// or whose new name another task has, is left out. The bytes as they are if they are no table. If the
// other tables of a merge are renamed like `ours`, a task is the same one in each of them. A plain
// function of its arguments.
std::string Renamed(std::string bytes, const std::vector<TRename>& renames);

}  // namespace vxsched
