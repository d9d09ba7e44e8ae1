#pragma once

// Releases the memory that only the startup needed; from now on the host is idle nearly all the
// time. Returns what the allocator has kept to the system, and unmaps the pages of code and
// constants of the program and its libraries. Those that are used again are read back from the
// files, a few pages at each tick. Any thread may call it.
void ReleaseStartupMemory();
