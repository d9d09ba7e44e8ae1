#pragma once

#include <chrono>
#include <utility>

#include "store/CWriterLock.h"

namespace vxsched {

// Holds the store mutex, a System V semaphore, for a scope. Unlike the add-in's own mutex object it
// never interrupts a holder and never removes the semaphore. The kernel releases it if the process
// dies (SEM_UNDO). Lock order: directory lock, writer lock, store mutex. Not recursive; the thread
// that made it destroys it.
class CStoreMutexLock {
public:
    // For a reader: where there is no store, it holds nothing and makes nothing. Waits at most
    // `lockTimeout` by the monotonic clock, also if signal handlers run meanwhile. Throws CError:
    // cBusy with the id of the holder on a timeout, cNoAccess or cFailed if the semaphore cannot be
    // used.
    explicit CStoreMutexLock(std::chrono::milliseconds lockTimeout)
        : CStoreMutexLock(lockTimeout, nullptr) {}

    // For a change, whose thread holds the writer lock: makes the semaphore where there is none, so
    // that the mutex is held in any case, and sets a wedged one free while it waits (CMutexHealer).
    // Otherwise as above.
    CStoreMutexLock(std::chrono::milliseconds lockTimeout, const CWriterLock& writerLock)
        : CStoreMutexLock(lockTimeout, &writerLock) {}
    ~CStoreMutexLock();
    CStoreMutexLock(const CStoreMutexLock&) = delete;
    CStoreMutexLock& operator=(const CStoreMutexLock&) = delete;

    // The destructor no longer releases the mutex. For a process that loads the add-in while it
    // holds the mutex: the load sets the mutex free, and a second release would let two processes
    // in at once from then on. Returns the semaphore set, -1 if none is held.
    int Forget() { return std::exchange(set, -1); }

    // Whether another process has set the mutex free meanwhile, by a load of the add-in, or removed it:
    // somebody else may hold it. Where nothing was held, nothing is lost.
    bool IsLost() const;

    // False for a reader if there is no store, or its semaphore was removed during the wait.
    bool IsHeld() const { return set != -1; }

private:
    CStoreMutexLock(std::chrono::milliseconds lockTimeout, const CWriterLock* writerLock);

    int set = -1;
};

}  // namespace vxsched
