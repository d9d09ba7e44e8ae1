#include "base/Sync.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/CDescriptor.h"

static std::atomic<void (*)(const std::string&)> gListener{nullptr};

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
    const bool isFlushed = directory.IsOpen() && Sync(fsync, directory.Get());
    if (!isFlushed && errno != EINVAL && errno != ENOENT)
        ReportSyncFailure(path);
}

void ReportSyncFailure(const char* path) {
    const int error = errno;
    if (const auto listener = gListener.load())
        listener(
            fmt::format("cannot flush {} to the disk: {}; a power failure may lose or damage "
                        "what was saved",
                        path, std::strerror(error)));
}

void SetSyncFailureListener(void (*listener)(const std::string& message)) {
    gListener = listener;
}
