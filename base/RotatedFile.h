#pragma once

#include <cstdint>
#include <string>

// Renames `path` to `path`.1, replacing an older one, if `coming` more bytes would take it beyond
// `limit` bytes. An empty file is never renamed. Returns false, with errno, if the rename failed;
// true if it succeeded or was not needed, also for a missing file.
bool RotateBeyond(const std::string& path, std::uint64_t limit, std::uint64_t coming = 0);
