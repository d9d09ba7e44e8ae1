#pragma once

#include <string>

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

// Flushes the names in a directory. A failure is reported to the listener and has no other effect:
// the names are as they should be for everything but a power failure. A file system that cannot
// flush directories at all (EINVAL) is no failure, nor is a directory that is not there.
void SyncDirectory(const char* path);

// Reports to the listener that a flush has failed, by errno, for a caller that goes on.
void ReportSyncFailure(const char* path);

// Sets the function that gets each such failure, with what it means, for a person, on the thread
// that met it. Null: they are ignored. Any thread may set it.
void SetSyncFailureListener(void (*listener)(const std::string& message));
