#include "interpose/FileStatus.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>

#include "interpose/NextDefinition.h"

static std::atomic<void (*)(const char*, int)> gListener{nullptr};

void SetFileStatusListener(void (*listener)(const char* path, int error)) {
    gListener = listener;
}

// Called by the add-in before it reads the table, under the store mutex, and by the program and its
// libraries. Unlike libc's it calls the listener. Result and errno are those of the next stat().
INTERPOSED int stat(const char* path, struct stat* status) noexcept {
    static auto* const next = NextDefinition<int(const char*, struct stat*)>("stat");
    const int result = next(path, status);
    const int error = errno;
    if (const auto listener = gListener.load(std::memory_order_relaxed))
        listener(path, result == -1 ? error : 0);
    errno = error;
    return result;
}
