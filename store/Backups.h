#pragma once

#include <filesystem>
#include <optional>

#include <vxsched/Repair.h>

namespace vxsched {

// The youngest sound table of those that were put aside in a store's directory: the copy from before
// the last change, and the host's snapshots. None when there is none.
std::optional<TBackup> FindBackup(const std::filesystem::path& directory);

// Keeps the bytes of a damaged table beside it, as files/scheduler.dat.damaged-TIME; where. Of those
// that are there, the youngest two dozen stay. Throws CError (cNoAccess, cFailed).
std::filesystem::path Quarantine(const std::filesystem::path& directory, std::string_view bytes);

// Puts a sound table in the place of a damaged one, whose bytes are kept likewise; where. On a disk
// without room for a copy the damaged file itself gets that name. When it throws, the table is as it
// was, unless the disk failed half-way: there is a copy then.
std::filesystem::path ReplaceDamaged(const std::filesystem::path& directory,
                                     std::string_view damaged, std::string_view sound);

}  // namespace vxsched
