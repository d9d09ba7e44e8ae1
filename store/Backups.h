#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include <vxsched/Repair.h>

namespace vxsched {

// The copies of a table that are kept, below the directory "files":
//
//   scheduler.dat.before                  the table before a client's last change
//   snapshots/scheduler.dat.TIME-NUMBER   the last valid tables that a host has seen
//   scheduler.dat.damaged-TIME[-NUMBER]   quarantined tables, for people: no repair uses them
//
// TIME is the time of creation in seconds since the epoch, NUMBER distinguishes files of one TIME.
// The names increase in the order of creation: after the clock was set back they continue with the
// TIME of the youngest and a higher NUMBER, until the clock has passed that time.
//
// Listing and reading need no lock, since the files are only ever replaced in one step. Who writes
// holds the store mutex, which keeps two calls from choosing the same name. All functions block for
// disk access only. If they throw CError (cNoAccess, cFailed), nothing is changed, and the copies
// from before are still there.

struct TBackupFile {
    enum EKind { cBeforeChange, cSnapshot, cQuarantined };

    EKind kind;
    std::chrono::system_clock::time_point time;  // of its last modification
    std::filesystem::path path;                  // begins with the store's directory
};

// All kinds, youngest first: the files of one kind by their names, which stay in order when the
// clock is set back, and the kinds among each other by their times. Empty if nothing can be read.
std::vector<TBackupFile> ListBackups(const std::filesystem::path& directory);

// The youngest intact table that a repair can take tasks from. Empty if there is none; files that
// cannot be read or are damaged are skipped.
std::optional<TBackup> FindBackup(const std::filesystem::path& directory);

// Makes `bytes` the table before the change that follows.
void KeepBeforeChange(const std::filesystem::path& directory, std::string_view bytes);

// Restores the table as it was before the last change: by a rename, which needs no disk
// space; if the table is a link, by ReplaceOrOverwriteTable() of its target. The caller holds the
// writer lock as well. Throws CError also if there is no such copy (cFailed), or a damaged one
// (cDamaged).
void RestoreBeforeChange(const std::filesystem::path& directory);

// Writes a snapshot, and removes all but the youngest `most`. If the youngest snapshot
// holds the same bytes, it becomes as young as now instead: otherwise a host that is restarted over
// and over would replace all other tables with the same one. Does nothing if `most` is 0.
void KeepSnapshot(const std::filesystem::path& directory, std::string_view bytes, std::size_t most);

// Quarantines the bytes of a damaged table and returns the path. The youngest 24 are kept.
std::filesystem::path Quarantine(const std::filesystem::path& directory, std::string_view bytes);

// Replaces the table, whose bytes are `damaged`, by `repaired` and quarantines the damaged bytes;
// returns their path. On a disk without room for a copy the damaged file itself goes to quarantine.
// The caller holds the writer lock as well. After a CError the table is unchanged, unless an
// overwrite failed half-way: the damaged bytes are then in quarantine.
std::filesystem::path ReplaceDamaged(const std::filesystem::path& directory,
                                     std::string_view damaged, std::string_view repaired);

}  // namespace vxsched
