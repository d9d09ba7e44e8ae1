#pragma once

#include <chrono>

namespace vxsched {

// Holds the store mutex, a System V semaphore, for a scope. Unlike the add-in's own mutex object it
// never makes the semaphore, sets its value or removes it: where there is no store, it holds
// nothing and makes nothing. The kernel releases it if the process dies (SEM_UNDO). Lock order:
// directory lock, writer lock, store mutex. Not recursive; the thread that made it destroys it.
class CStoreMutexLock {
public:
    // Waits at most `lockTimeout` by the monotonic clock, also if signal handlers run meanwhile.
    // Throws CError: cBusy with the id of the holder on a timeout, cNoAccess or cFailed if the
    // semaphore cannot be used.
    explicit CStoreMutexLock(std::chrono::milliseconds lockTimeout);
    ~CStoreMutexLock();
    CStoreMutexLock(const CStoreMutexLock&) = delete;
    CStoreMutexLock& operator=(const CStoreMutexLock&) = delete;

    // The destructor no longer releases the mutex. For a process that loads the add-in while it
    // holds the mutex: the load sets the mutex free, and a second release would let two processes
    // in at once from then on.
    void Forget() { set = -1; }

    // False if there is no store, or its semaphore was removed during the wait.
    bool IsHeld() const { return set != -1; }

private:
    int set = -1;
};

}  // namespace vxsched
