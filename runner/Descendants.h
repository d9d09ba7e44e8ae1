#pragma once

#include <sys/types.h>

#include <vector>

// The processes that descend from this one, also those that have ended and that nobody has collected,
// whose other threads may go on. One that is being made, or loses its parent meanwhile, may be missing.
// This process has to be a subreaper, or what has lost its parent is no descendant. Reads all of /proc.
std::vector<pid_t> FindDescendants();
