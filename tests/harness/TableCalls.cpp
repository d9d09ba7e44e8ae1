#include "TableCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <cerrno>
#include <cstdarg>
#include <utility>

#include "TableFile.h"

std::function<bool(const std::string& call)> gFailTableCall;
static TCalls gCalls;

TCalls TakeTableCalls() {
    return std::exchange(gCalls, {});
}

static bool Fails(const std::string& call) {
    gCalls.push_back(call);
    if (!gFailTableCall || !gFailTableCall(call))
        return false;
    errno = EIO;
    return true;
}

static bool IsTable(int descriptor) {
    char path[4096];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), path, sizeof path);
    return length > 0 && std::string(path, static_cast<std::size_t>(length)).ends_with(cTable);
}

// The five functions below are called by the test, the harness and the add-in, on whichever thread.
// They record calls on the task file and pass them on to libc, unless gFailTableCall makes one fail
// with EIO. Calls on other files only pass through.

extern "C" int stat(const char* path, struct stat* status) noexcept {
    if (std::string(path) == cTable)
        gCalls.emplace_back("stat");
    return fstatat(AT_FDCWD, path, status, 0);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    if (std::string(path) == cTable) {
        EXPECT_NE(flags & O_CLOEXEC, 0);
        if (Fails("open " + std::to_string(flags & ~O_CLOEXEC) + ' ' + std::to_string(mode)))
            return -1;
    }
    return NextDefinition<int(const char*, int, ...)>("open")(path, flags, mode);
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (IsTable(descriptor) && Fails("read"))
        return -1;
    return NextDefinition<ssize_t(int, void*, std::size_t)>("read")(descriptor, buffer, size);
}

extern "C" ssize_t write(int descriptor, const void* buffer, std::size_t size) {
    if (IsTable(descriptor) && Fails("write"))
        return -1;
    return NextDefinition<ssize_t(int, const void*, std::size_t)>("write")(descriptor, buffer,
                                                                           size);
}

extern "C" int close(int descriptor) {
    const bool fails = IsTable(descriptor) && Fails("close");
    const int result = NextDefinition<int(int)>("close")(descriptor);
    errno = fails ? EIO : errno;
    return fails ? -1 : result;
}
