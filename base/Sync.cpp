#include "base/Sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/CDescriptor.h"

static bool Sync(int (*sync)(int), int descriptor) {
    static const bool isLeftOut = std::getenv("VXSCHED_NO_SYNC") != nullptr;
    if (isLeftOut)
        return true;
    int result = 0;
    do {
        result = sync(descriptor);
    } while (result == -1 && errno == EINTR);
    return result == 0;
}

bool SyncFile(int descriptor) {
    return Sync(fsync, descriptor);
}

bool SyncData(int descriptor) {
    return Sync(fdatasync, descriptor);
}

void SyncDirectory(const char* path) {
    const CDescriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen())
        Sync(fsync, directory.Get());
}
