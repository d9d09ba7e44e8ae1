#pragma once

#include <sys/types.h>

#include <vector>

// The processes that descend from this one, also those that have ended and that nobody has collected,
// whose other threads may go on. One that is being made, or loses its parent meanwhile, may be missing.
// This process has to be a subreaper, or what has lost its parent is no descendant. Reads all of /proc.
std::vector<pid_t> FindDescendants();

// Those of them that are children of this process, which has to have one thread. A child that has another
// one and ends is missed less often than by FindDescendants(): this reads one file. Empty if the kernel
// has no such file (CONFIG_PROC_CHILDREN).
std::vector<pid_t> FindChildren();
