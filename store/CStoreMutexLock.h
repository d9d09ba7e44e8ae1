#pragma once

#include <chrono>

namespace vxsched {

// Holds the store mutex for a scope, as one more waiter among those who use it. Unlike the add-in's
// own mutex it never makes the semaphore, never sets its value, and never removes it: where there is
// no store, nothing is held and nothing is made. The kernel gives it back if the process dies.
class CStoreMutexLock {
public:
    // Waits at most `patience`. Throws CError: cBusy with the process that holds it, when that
    // has passed; cNoAccess or cFailed when the semaphore cannot be used. Goes on waiting after a signal handler
    // ran.
    explicit CStoreMutexLock(std::chrono::milliseconds lockTimeout);
    ~CStoreMutexLock();
    CStoreMutexLock(const CStoreMutexLock&) = delete;
    CStoreMutexLock& operator=(const CStoreMutexLock&) = delete;

    // For who loads the library while holding the mutex: the load sets it free, so that giving it back
    // as well would let two in at once from then on.
    void Forget() { set = -1; }

    // False where there is no store, or its semaphore was removed while it was waited for.
    bool IsHeld() const { return set != -1; }

private:
    int set = -1;
};

}  // namespace vxsched
