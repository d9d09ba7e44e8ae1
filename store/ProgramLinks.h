#pragma once

#include <filesystem>
#include <string>

#include <vxsched/Table.h>

namespace vxsched {

// Links to programs whose path the add-in would alter or refuse at a launch (`/usr/bin/free`,
// `backup.sh`): symbolic links with safe names in `files/programs/` of the store's directory. A
// caller that makes or removes links holds the writer lock; the others need no lock. They block for
// disk access only.

// Returns the path for the table for `program`, an absolute path: itself if the add-in launches it
// as it is, else the path of a link to it, which is made if there is none yet. The program sees the
// link's path as its argv[0]; the link is on the disk. Throws CError (cNoAccess, cFailed) if the
// link cannot be made; the directory may have been made by then.
std::string MakeSchedulable(const std::filesystem::path& directory, const std::string& program);

// Makes the link `path`, as returned by MakeSchedulable(), to `program`, and its directory, unless
// they exist. Throws CError (cNoAccess, cFailed) if it cannot, also if `path` is something else.
// SyncLinks() is to follow before a table that refers to the link is written.
void MakeLink(const std::string& path, const std::string& program);

// Waits until the links of the store, and their directory, are on the disk.
void SyncLinks(const std::filesystem::path& directory);

// True if a path of the table is that of such a link, whether or not the link exists.
bool IsLinkPath(const std::filesystem::path& directory, const std::string& program);

// True if a path has the form of such a link of another store, as a table has it that came from
// there, whether or not the link exists.
bool IsLinkPathOfAnotherStore(const std::filesystem::path& directory, const std::string& program);

// The program that a path of the table leads to: the target of the link, or the path itself if it
// is no such link or the link is missing.
std::string RealProgram(const std::filesystem::path& directory, const std::string& program);

// Removes the links that have been used by no task of the table, and by no owed launch, for a day:
// what was launched through one may still need it. The day begins at the first call that finds the
// link unused.
// Other files of the directory stay. Links that cannot be removed stay, too; that is not an error.
void RemoveUnusedLinks(const std::filesystem::path& directory, const TTable& table);

}  // namespace vxsched
