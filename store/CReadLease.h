#pragma once

#include "store/CLeaseSignal.h"

namespace vxsched {

// Keeps writers out of an open file, for the moment that this object lives: whoever opens it for
// writing waits in open(). The store mutex does not suffice for that: a process that loads the
// add-in sets it free under any holder.
//
// The lease is the kernel's (F_SETLEASE). It is granted to the file's owner and to the superuser,
// on local file systems. To be destroyed by the thread that made it, which must not open the file
// for writing in between: it would wait for itself.
class CReadLease {
public:
    // Asks for the lease of a regular file that is open for reading only. Waits while somebody has
    // the file open for writing, for a second at most: a save takes milliseconds.
    explicit CReadLease(int descriptor);
    ~CReadLease();
    CReadLease(const CReadLease&) = delete;
    CReadLease& operator=(const CReadLease&) = delete;

    // Whether it was granted, and nobody has asked to open the file for writing since.
    bool IsUnbroken() const;

private:
    const CLeaseSignal signal;
    const int descriptor;
    bool isGranted = false;
};

}  // namespace vxsched
