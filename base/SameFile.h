#pragma once

#include <sys/stat.h>

#include <filesystem>

namespace vxsched {

// Whether two statuses are of one file, of any kind: inode numbers are unique within one file
// system only.
inline bool IsSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether `path` leads to the file of that status. False if this user may not read it.
inline bool IsSameFile(const std::filesystem::path& path, const struct stat& wanted) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && IsSameFile(status, wanted);
}

}  // namespace vxsched
