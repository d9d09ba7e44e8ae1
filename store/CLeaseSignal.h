#pragma once

#include <csignal>

namespace vxsched {

// Keeps SIGIO, by which the kernel announces to the holder of a lease that somebody waits to open
// the file, from this thread for as long as this object lives: it would end the process. One that
// has come is discarded. For the thread that made it.
class CLeaseSignal {
public:
    CLeaseSignal();
    ~CLeaseSignal();
    CLeaseSignal(const CLeaseSignal&) = delete;
    CLeaseSignal& operator=(const CLeaseSignal&) = delete;

    // Asks the kernel for a lease of an open file: F_WRLCK or F_RDLCK. Does not block. False, with
    // errno, if it is not granted; EAGAIN if somebody has the file open.
    bool IsGranted(int descriptor, int kind) const;

private:
    sigset_t formerMask{};
};

}  // namespace vxsched
