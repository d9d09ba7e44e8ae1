#pragma once

// What has to survive a power failure is flushed to the disk: a file before the rename that puts it
// in another's place, and the directory afterwards. With the environment variable VXSCHED_NO_SYNC
// set at the first call, nothing is flushed: saves are faster, and a power failure may lose or
// damage what was saved shortly before. Each function blocks for disk access. Any thread may call
// them.

// Flushes a file with its owner and mode. Returns false, with errno, on failure: what was written
// may then never reach the disk.
bool SyncFile(int descriptor);

// The same for a file that was overwritten: flushes no times, owner or mode.
bool SyncData(int descriptor);

// Flushes the names in a directory. A failure is ignored: the names are as they should be for
// everything but a power failure, and not every file system can flush a directory.
void SyncDirectory(const char* path);
