#pragma once

#include "sync/CSyncObject.h"

// A mutex across processes and threads: one System V semaphore (1 free, 0 held) whose key is the
// CRC-32 of a name. Every operation is undone by the kernel when the process ends (SEM_UNDO), so a
// process that dies while it holds the mutex frees it.
//
// What a user of it must know, all of it deliberate and relied upon:
// - Construction sets the mutex free, also when another process holds it: a newly loaded process
//   always finds the mutex free.
// - Destruction removes the semaphore from the system, also while others use it. Their operations
//   then fail until they construct a new CMutex; an object never reopens its semaphore.
// - A wait that a signal handler interrupts has failed (LOCK_FAILED, errno EINTR); it is not taken
//   up again.
// - Nothing bounds the value: a release without a lock lets two holders in at once.
class CMutex : public CSyncObject {
public:
    // Creates the semaphore of `name`, or opens it, readable and writable for owner and group. A
    // mutex that cannot be created or opened ends the process: the exception meets the noexcept and
    // std::terminate is called.
    // NOLINTNEXTLINE(bugprone-exception-escape)
    explicit CMutex(const char* name) noexcept;

    // Releases once more if locked, then removes the semaphore from the system.
    ~CMutex() override;

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // As in CSyncObject. `timeout` is in milliseconds; 0 tries once. Do not pass 2^31 or more, other
    // than ULONG_MAX: most such timeouts make a time that the system rejects (LOCK_FAILED at once),
    // but some wrap to a shorter wait (2^58 tries once).
    int Lock(unsigned long timeout) override;

    bool Lock() override;

    // Releases the semaphore. Success leaves isLocked() as it was; failure (-1) clears it.
    int Unlock() override;

private:
    int semId = -1;
    bool owner = true;  // this object created the set; nothing reads it
};
