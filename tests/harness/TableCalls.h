#pragma once

#include <functional>
#include <string>
#include <vector>

// The system calls on the task file, seen and made to fail. A test program that is linked to this
// file has them come through here, the add-in's as well (see tests/CMakeLists.txt).

using TCalls = std::vector<std::string>;

// What was called since the last time: "stat", "open FLAGS MODE", "read", "write", "close".
// Whether the flag O_CLOEXEC is given is not told; that it is, is expected of every open.
TCalls TakeTableCalls();

// Whether a call fails with EIO; asked before each but stat. A close that fails has closed.
extern std::function<bool(const std::string& call)> gFailTableCall;
