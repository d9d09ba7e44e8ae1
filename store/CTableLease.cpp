#include "store/CTableLease.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <vxsched/Error.h>
#include "base/SameFile.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

bool IsFileAt(int descriptor, const std::filesystem::path& path) {
    struct stat opened {};
    return fstat(descriptor, &opened) == 0 && S_ISREG(opened.st_mode) && IsSameFile(path, opened);
}

}  // namespace

CTableLease::CTableLease(const std::filesystem::path& file) : path(file) {
    Ask();
}

CTableLease::~CTableLease() {
    if (state == cHeld)
        fcntl(descriptor.Get(), F_SETLEASE, F_UNLCK);
}

void CTableLease::Ask() {
    // Without O_NONBLOCK, open() would wait for somebody else's lease, or for the writer of a pipe.
    descriptor = CDescriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor.IsOpen()) {
        state = errno == ENOENT ? cMissing : cUnknown;
        return;
    }
    if (!signal.IsGranted(descriptor.Get(), F_WRLCK)) {
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
    if (!reader.IsOpen() || !signal.IsGranted(reader.Get(), F_RDLCK))
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
