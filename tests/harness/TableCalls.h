#pragma once

#include <functional>
#include <string>
#include <vector>

// Records the system calls on the task file and makes them fail. In a test program that links this
// file the calls are interposed, the add-in's included (see tests/CMakeLists.txt).

using TCalls = std::vector<std::string>;

// The calls since the last time: "stat", "open FLAGS MODE", "read", "write", "close". FLAGS omit
// O_CLOEXEC, which every open must give.
TCalls TakeTableCalls();

// Whether a call is to fail with EIO; called before each call but stat. A close that fails has
// closed the file.
extern std::function<bool(const std::string& call)> gFailTableCall;
