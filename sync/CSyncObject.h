#pragma once

#include <atomic>

// Results of CSyncObject::Lock(unsigned long).
enum : int {
    LOCK_FAILED = 0,    // the operation failed for a reason other than the time running out
    LOCK_TIMEOUT = 1,   // the time ran out
    LOCK_ACQUIRED = 2,  // the lock is held
};

// A lock that is taken and released. Not recursive and without an owner: any thread may release it.
class CSyncObject {
public:
    virtual ~CSyncObject() = default;

    // Takes the lock, waiting at most `timeout` milliseconds; ULONG_MAX waits without limit.
    // Returns LOCK_FAILED, LOCK_TIMEOUT or LOCK_ACQUIRED.
    virtual int Lock(unsigned long timeout) = 0;

    // Takes the lock, waiting without limit. False when it could not be taken.
    virtual bool Lock() = 0;

    // Releases the lock, whichever thread holds it, and also when none does. 0, or -1 on failure.
    virtual int Unlock() = 0;

    // True once a lock has succeeded, until a release fails. A release that succeeds leaves it
    // true: callers that release only "if locked" therefore release again, and IsTaskRunning
    // depends on it.
    virtual bool isLocked() const { return locked.load(std::memory_order_relaxed); }

protected:
    // Written by the thread that locks or releases, without further synchronisation.
    std::atomic<bool> locked{false};
};
