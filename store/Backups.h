#pragma once

#include <filesystem>
#include <optional>

#include <vxsched/Repair.h>

namespace vxsched {

// The tables that a repair can take tasks from, and the quarantine for damaged ones. FindBackup()
// needs no lock, since its files are only ever replaced in one step. The functions block for disk
// access only.

// The newest intact table among the backup from before the last change and the host's snapshots.
// Empty if there is none; files that cannot be read or are damaged are skipped.
std::optional<TBackup> FindBackup(const std::filesystem::path& directory);

// Writes the bytes of a damaged table to files/scheduler.dat.damaged-TIME and returns that path.
// Only the newest 24 such files are kept. Holding the store mutex keeps two calls from choosing the
// same path. Throws CError (cNoAccess, cFailed); nothing is removed then.
std::filesystem::path Quarantine(const std::filesystem::path& directory, std::string_view bytes);

// Replaces the table, whose bytes are `damaged`, by `repaired` and keeps the damaged bytes in
// quarantine; returns that path. On a disk without room for a copy the damaged file itself moves to
// the quarantine. The caller holds the writer lock and the store mutex. Throws CError (cNoAccess,
// cFailed); the table is unchanged then, unless an overwrite failed half-way: the quarantine then
// has the damaged bytes.
std::filesystem::path ReplaceDamaged(const std::filesystem::path& directory,
                                     std::string_view damaged, std::string_view repaired);

}  // namespace vxsched
