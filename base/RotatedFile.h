#pragma once

#include <cstdint>
#include <string>

// Moves `path` to `path`.1, over the one of last time, when it holds more than `limit` bytes once
// `coming` more are added. False, with errno, when it had to be moved and could not; a file that is
// missing or small enough, or empty, is true.
bool RotateBeyond(const std::string& path, std::uint64_t limit, std::uint64_t coming = 0);
