#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace vxsched {

// Who may use a store besides its owner. Everything in it is the owner's alone, unless the operator
// has opened it to a group: the group may then enter the directory and write in `files/`. That opens
// the store to the group wholly, backups and semaphores included, since a member who may replace the
// table may launch any program as the owner.

// That group; empty for a store that is its owner's alone, and where the directory cannot be examined.
std::optional<gid_t> GroupWithAccess(const std::filesystem::path& directory);

// The mode of the files that host and clients write into the store of a directory, other than the
// table, and of its semaphores: 0600, or 0660 for a store that is open to a group. 0600 also where
// the directory cannot be examined.
mode_t PrivateMode(const std::filesystem::path& directory);

// The mode of a table that is made where there is none: the add-in's 0644, or 0664 for a store that
// is open to a group, whose members and owner have to write it whoever of them makes it.
mode_t NewTableMode(const std::filesystem::path& directory);

// Makes a directory in the store, for whom PrivateMode() says, with the group that the store is open
// to for what is made in it; one that exists stays as it is. Returns 0, or an error number.
int MakePrivateDirectory(const std::filesystem::path& path, const std::filesystem::path& store);

// Has a file that this process has made in the store be for whom PrivateMode() says, with the group
// that the store is open to; for its owner alone if it cannot have that group. Not by open(), whose
// mode the umask narrows, and whose group depends on the directory's mode. Returns 0, or an error
// number.
int MakePrivate(int file, const std::filesystem::path& store);

// Whether a user may use the store of a directory: the superuser, this process's user, the owner of
// the directory, and the members of the group that it is open to.
bool MayUse(uid_t user, const std::filesystem::path& directory);

// Whom the store of a directory is for, to be added to a message to another user: "; the directory DIR
// is for user keeper alone", or "... user keeper and the group team". Empty for the superuser and the
// owner, and if the directory cannot be examined.
std::string NoteOfUsers(const std::filesystem::path& directory);

// Why a host must not use `files/` of a directory: it, something in it, or in one of the directories
// there that a store has, belongs to a user who may not use the store, or may be written by others
// than its owner and the group that may write `files/`. Who could put an owed launch, a backup or a
// link to a program there would have the owner launch any program. With the commands that repair it;
// empty if there is nothing of that kind.
std::string WhyFilesAreRefused(const std::filesystem::path& directory);

}  // namespace vxsched
