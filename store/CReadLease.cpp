#include "store/CReadLease.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>

#include "base/CDeadline.h"

namespace vxsched {

CReadLease::CReadLease(int file) : descriptor(file) {
    const CDeadline deadline(std::chrono::seconds(1));
    do {
        isGranted = signal.IsGranted(descriptor, F_RDLCK);
    } while (!isGranted && errno == EAGAIN && deadline.Pause(std::chrono::milliseconds(1)));
}

CReadLease::~CReadLease() {
    if (isGranted)
        fcntl(descriptor, F_SETLEASE, F_UNLCK);
}

// While somebody waits, the kernel reports what the lease has to become.
bool CReadLease::IsUnbroken() const {
    return isGranted && fcntl(descriptor, F_GETLEASE) == F_RDLCK;
}

}  // namespace vxsched
