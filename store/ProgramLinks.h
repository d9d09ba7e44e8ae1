#pragma once

#include <filesystem>
#include <string>

#include <vxsched/Table.h>

namespace vxsched {

// Programs that a start would alter or refuse (`/usr/bin/free`, `backup.sh`) are scheduled by a link
// with a safe name, kept in `files/programs/` of the store's directory. Who makes or removes one has the
// turn (CWriterLock).

// The path to put into the table for `program`, an absolute path: itself where a start leaves it
// alone, else the path of a link to it, which is made if there is none yet. A program that looks at
// the name it was started by sees the link's. Throws CError
// (cNoAccess, cFailed) when the link cannot be made.
std::string MakeSchedulable(const std::filesystem::path& directory, const std::string& program);

// Makes the link `path`, as MakeSchedulable() named it, to `program` unless it is there, and
// its folder. One of that name to something else is an error. Throws
// CError likewise.
void MakeLink(const std::string& path, const std::string& program);

// Whether a path of the table is one of these links, be it there or not.
bool IsLinkPath(const std::filesystem::path& directory, const std::string& program);

// The program behind a path of the table: what the link points to, or the path itself.
std::string RealProgram(const std::filesystem::path& directory, const std::string& program);

// Removes the links that no task of the table needs. What else lies in the folder stays.
void RemoveUnusedLinks(const std::filesystem::path& directory, const TTable& table);

}  // namespace vxsched
