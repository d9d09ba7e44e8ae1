#pragma once

#include <filesystem>
#include <string>

#include <vxsched/Table.h>

namespace vxsched {

// Links to programs whose path the add-in would alter or refuse at a launch (`/usr/bin/free`,
// `backup.sh`): symbolic links with safe names in `files/programs/` of the store's directory. Tables have
// them that were made before the runner executed such programs; nobody makes new ones. These functions
// need no lock but where that is said, and block for disk access only.

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
// link unused. The caller holds the writer lock.
// Other files of the directory stay. Links that cannot be removed stay, too; that is not an error.
void RemoveUnusedLinks(const std::filesystem::path& directory, const TTable& table);

}  // namespace vxsched
