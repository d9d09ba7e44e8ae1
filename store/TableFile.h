#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vxsched {

// The table's file, and the copy that is made of it before each change, as bytes. The caller holds
// the store mutex (CStoreMutexLock), and who writes has the turn as well (CWriterLock).

// "files/scheduler.dat" of the directory.
std::filesystem::path TableFile(const std::filesystem::path& directory);

// "files/scheduler.dat.before": the table as it was before the last change of a client.
std::filesystem::path BackupFile(const std::filesystem::path& directory);

// The bytes of a file; those of an empty table when there is none. Throws CError (cNoAccess,
// cFailed) when it cannot be read, or is larger than any table (1 GiB).
std::string ReadBytes(const std::filesystem::path& file);

// Another text after each change of the table's file; empty when there is none.
std::string TableState(const std::filesystem::path& directory);

// Puts `bytes` in the place of the table in one step: whoever opens it sees the old ones or the new
// ones, and when anything fails the old ones stay. Owner and access rights stay as they were. Where
// the file is a link, what it leads to is replaced. Throws CError (cNoAccess, cFailed).
void ReplaceTable(const std::filesystem::path& directory, std::string_view bytes);

// The same, and on a disk without room for a second file over the former bytes, for which all the room
// is there before the first is touched: better than to leave the table out of date. A kill in the
// middle leaves some of the old bytes and some of the new ones.
void ReplaceOrOverwriteTable(const std::filesystem::path& directory, std::string_view bytes);

// Writes a file with the table's rights under a name that is not taken. Throws likewise.
void WriteNewFile(const std::filesystem::path& file, std::string_view bytes,
                  const std::filesystem::path& directory);

// Removes the files that were to take the place of the table or of the copy, and were not finished
// because their process was killed. Nobody else is at one while the caller has mutex and turn.
void RemoveLeftovers(const std::filesystem::path& directory);

// Makes `bytes` the copy from before a change, likewise in one step and with the table's rights.
void WriteBackup(const std::filesystem::path& directory, std::string_view bytes);

}  // namespace vxsched
