// Regular files, and nothing that has a file's name only. Opening a FIFO waits for its other end,
// opening a device may have effects, and reading one may never end; the caller may hold locks
// meanwhile. What was opened is checked, not the path, which may lead elsewhere a moment later.

#pragma once

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "base/CDescriptor.h"

// The errno of a call on a FIFO, a socket or a device.
inline constexpr int cNotAFile = ENOTSUP;

// Opens a regular file, close-on-exec; follows links unless `flags` say otherwise. `flags` and
// `mode` are those of open(). Never waits for the other end of a FIFO, only for a lease that
// another process holds. On failure returns a closed descriptor, with errno: that of open(), EISDIR
// for a directory, cNotAFile for anything else that is no file.
CDescriptor OpenRegularFile(const char* path, int flags, mode_t mode = 0);

// Reads a regular file to its end into `bytes`. Blocks for disk access only. Returns false, with
// errno as of OpenRegularFile() and read(), or EFBIG if it has more than `most` bytes, which is
// found out before memory is allocated for them; `bytes` is unspecified then.
bool ReadRegularFile(const std::string& path, std::uint64_t most, std::string& bytes);

// The same for a regular file that is open for reading, from where it stands.
bool ReadRegularFile(int descriptor, std::uint64_t most, std::string& bytes);
