#pragma once

// Gives up the memory that only the start needed, for a host that from now on rests nearly always:
// what the allocator keeps of the table's reading, and the mapped code and constants of the program
// and its libraries. What of these is used again comes back from the files, a few pages at each
// tick; the rest stays in the system's file cache as long as there is room. From any thread.
void ReleaseStartupMemory();
