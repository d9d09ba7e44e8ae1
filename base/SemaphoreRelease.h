#pragma once

// Releases semaphore 0 of a System V set that this process has taken with SEM_UNDO, in one step and
// only if it still counts as taken. It does not if another process has set the semaphore's value
// since: the kernel then forgets the operation, and a plain release would let one more in, until
// the end of this process took that away again.
//
// All threads of a process count together. Returns 0 if it was released. Otherwise -1 and errno:
// ERANGE if this process has not taken it or the operation was forgotten, others as for semop().
// Does not block; any thread may call it.
int ReleaseIfTaken(int set);
