#include "store/CTableLease.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include <vxsched/Error.h>
#include "base/SameFile.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

sigset_t JustSigio() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGIO);
    return set;
}

bool IsFileAt(int descriptor, const std::filesystem::path& path) {
    struct stat opened {};
    return fstat(descriptor, &opened) == 0 && S_ISREG(opened.st_mode) && IsSameFile(path, opened);
}

// Asks for the lease, with SIGIO to this thread instead of the process.
bool IsGranted(int descriptor, int kind) {
    f_owner_ex owner{.type = F_OWNER_TID, .pid = gettid()};
    return fcntl(descriptor, F_SETOWN_EX, &owner) == 0 && fcntl(descriptor, F_SETLEASE, kind) == 0;
}

}  // namespace

CTableLease::CTableLease(const std::filesystem::path& file) : path(file) {
    const sigset_t sigio = JustSigio();
    pthread_sigmask(SIG_BLOCK, &sigio, &formerMask);
    Ask();
}

CTableLease::~CTableLease() {
    if (state == cHeld)
        fcntl(descriptor.Get(), F_SETLEASE, F_UNLCK);
    const sigset_t sigio = JustSigio();
    const timespec now{};
    while (sigtimedwait(&sigio, nullptr, &now) == SIGIO) {
    }
    pthread_sigmask(SIG_SETMASK, &formerMask, nullptr);
}

void CTableLease::Ask() {
    // Without O_NONBLOCK, open() would wait for somebody else's lease, or for the writer of a pipe.
    descriptor = CDescriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor.IsOpen()) {
        state = errno == ENOENT ? cMissing : cUnknown;
        return;
    }
    if (!IsGranted(descriptor.Get(), F_WRLCK)) {
        const bool isInUse = errno == EAGAIN;
        descriptor = CDescriptor();
        state = isInUse ? StateWithoutLease() : cUnknown;
        return;
    }
    state = cHeld;
    // Another file may have been renamed to this name before the lease was granted.
    if (!IsFileAt(descriptor.Get(), path)) {
        fcntl(descriptor.Get(), F_SETLEASE, F_UNLCK);
        state = cUnknown;
    }
}

// Distinguishes writers from readers: a lease for reading is refused only where somebody writes.
CTableLease::EState CTableLease::StateWithoutLease() const {
    const CDescriptor reader(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!reader.IsOpen() || !IsGranted(reader.Get(), F_RDLCK))
        return cWritten;
    fcntl(reader.Get(), F_SETLEASE, F_UNLCK);
    return cUnknown;
}

std::string CTableLease::Read() const {
    if (lseek(descriptor.Get(), 0, SEEK_SET) == -1)
        throw SystemError("cannot read " + path.string(), errno);
    return ReadBytes(descriptor.Get(), path);
}

void CTableLease::Overwrite(std::string_view bytes) const {
    OverwriteTable(descriptor.Get(), bytes, path);
}

bool IsBeingSaved(const std::filesystem::path& directory, std::string_view bytes) {
    const CTableLease lease(TableFile(directory));
    return lease.State() == CTableLease::cWritten ||
           (lease.State() == CTableLease::cHeld && lease.Read() != bytes);
}

}  // namespace vxsched
