#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vxsched {

// The table's file, as bytes, and how files next to it are written. The caller holds the store
// mutex; a client that writes, and a host that starts up, holds the writer lock as well, taken
// first. The paths and TableState() need no lock. The functions block for disk access only,
// whatever is in place of the table: what is no regular file is refused. What they write survives a
// power failure from their return on: a file is flushed to the disk before it gets its name, then
// the name (base/Sync.h).

// The path files/scheduler.dat in the directory.
std::filesystem::path TableFile(const std::filesystem::path& directory);

// True if `path` is a symbolic link to nothing, as when the disk of its target is not mounted. What
// it leads to is then out of reach, and not missing.
bool IsLinkToNothing(const std::filesystem::path& path);

// Reads the bytes of a table's file, also damaged ones: the only reader of a table without the
// add-in. A missing file is an empty table (8 zero bytes). Throws CError (cNoAccess, cFailed) if
// the file cannot be read, is larger than 1 GiB, more than any table, is a directory, a FIFO, a
// socket or a device, or if the file or its directory is a link to nothing.
std::string ReadBytes(const std::filesystem::path& file);

// The same for a file that is open for reading, from where it stands; `file` is for messages.
std::string ReadBytes(int descriptor, const std::filesystem::path& file);

// ReadBytes() of a directory's table. Takes no lock: the caller holds the store mutex, or runs as
// part of the tick that holds it.
std::string ReadTableBytes(const std::filesystem::path& directory);

// Whether the bytes are a valid table, as DecodeTable() judges. Needs no lock.
bool IsValidTable(std::string_view bytes);

// A string that differs after each change of the table's file, made of its change time, inode and
// size; empty if there is no file.
std::string TableState(const std::filesystem::path& directory);

// Replaces the table by `bytes` in one step, by rename(): a reader sees either the old bytes or the
// new ones. Owner and mode stay. If the file is a symbolic link, its target is replaced; if there
// is no target, nothing is. A member of the group that the store is open to cannot make a file of the
// owner's, and overwrites the table in place, as OverwriteTable() does. Throws CError (cNoAccess,
// cFailed); the old table stays then.
void ReplaceTable(const std::filesystem::path& directory, std::string_view bytes);

// The same without overwriting in place: returns false then, and has changed nothing.
bool TryToReplaceTable(const std::filesystem::path& directory, std::string_view bytes);

// The same for a change of tasks. Where the table has several names (hard links), false: a rename would
// separate them.
bool TryToSaveTasks(const std::filesystem::path& directory, std::string_view bytes);

// The same for a change of one task: the table guard takes it for a save, which may have removed
// that task and no other.
bool TryToSaveTable(const std::filesystem::path& directory, std::string_view bytes);

// Overwrites the table in place, see below. Throws CError (cNoAccess, cFailed).
void OverwriteTable(const std::filesystem::path& directory, std::string_view bytes);

// Like ReplaceTable(), but if that fails, on a full disk for example, overwrites the file in place:
// better than an outdated table. A kill, a power failure or a CError during the overwrite leaves a
// damaged table.
void ReplaceOrOverwriteTable(const std::filesystem::path& directory, std::string_view bytes);

// Overwrites an open table in place by the valid table `bytes`. The space is allocated before the
// first byte is written; until the last one is, no reader takes the file for a valid table, not
// even after a power failure. `file` is for messages. Throws CError (cFailed).
void OverwriteTable(int descriptor, std::string_view bytes, const std::filesystem::path& file);

// Renames a file of the same file system to the table, with the table's mode. Throws CError
// (cNoAccess, cFailed); the table is unchanged then.
void RenameToTable(const std::filesystem::path& file, const std::filesystem::path& directory);

// Writes `file` in one step, with the table's owner, if permitted, and with PrivateMode(); replaces
// a file of that name. Throws CError (cNoAccess, cFailed); nothing is changed then.
void WriteNewFile(const std::filesystem::path& file, std::string_view bytes,
                  const std::filesystem::path& directory);

// Removes the temporary files, of the table and of its backups, that a kill has left. The caller
// holds both locks, so that no other process is still writing one. Files that cannot be removed
// stay.
void RemoveLeftovers(const std::filesystem::path& directory);

}  // namespace vxsched
