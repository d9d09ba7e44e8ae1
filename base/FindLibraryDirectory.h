#pragma once

#include <filesystem>

// Returns the directory of libraries that holds `file`: "lib" or `installed` in the directory above
// that of this program, which are the same in the build tree and in an installation. If neither has
// the file, returns the latter. Empty if /proc does not show where this program is: a path relative
// to the present directory would lead to anybody's libraries. Any thread may call it.
std::filesystem::path FindLibraryDirectory(const std::filesystem::path& file,
                                           const std::filesystem::path& installed);
