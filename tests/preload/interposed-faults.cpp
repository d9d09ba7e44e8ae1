// Injects one fault into a real program (LD_PRELOAD): of its calls on the files of a store, below
// "files", the one whose number the environment variable FAULT_CALL holds fails, counted from 1
// over all threads. The fault is reported on standard error as "injected fault N: CALL".
//
// REFUSE_FLUSHES makes every flush (fsync) of a directory fail with EIO, or, if it is "linked", every
// one of a file with several hard links.
//
// The symbols below are called by the program, its libraries and the add-in, on whichever thread.
// Each passes the call on to the next definition, except the one call that fails: it makes no
// system call (close does close) and returns -1 with errno set to ENOSPC for calls that need room,
// EMFILE for other opens, EIO for the others.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int cMostDescriptors = 1024;
std::atomic<bool> gIsOfTheStore[cMostDescriptors];

bool IsOfTheStore(const char* path) {
    std::string_view relative = path;
    if (relative.starts_with("./"))
        relative.remove_prefix(2);
    return relative == "files" || relative.starts_with("files/");
}

bool IsOfTheStore(int descriptor) {
    return descriptor >= 0 && descriptor < cMostDescriptors && gIsOfTheStore[descriptor];
}

// True once, for the call that is to fail.
bool Fails(const char* call, int error) {
    static const long gNumber = [] {
        const char* const value = std::getenv("FAULT_CALL");
        return value != nullptr ? std::atol(value) : 0;
    }();
    static std::atomic<long> gCalls{0};
    if (gNumber == 0 || ++gCalls != gNumber)
        return false;
    dprintf(STDERR_FILENO, "injected fault %ld: %s\n", gNumber, call);
    errno = error;
    return true;
}

bool IsRefused(int flushed) {
    const char* const what = std::getenv("REFUSE_FLUSHES");
    struct stat status {};
    if (what == nullptr || fstat(flushed, &status) == -1)
        return false;
    return std::string_view(what) == "linked" ? S_ISREG(status.st_mode) && status.st_nlink > 1
                                              : S_ISDIR(status.st_mode);
}

}  // namespace

extern "C" int openat(int directory, const char* path, int flags, ...) {
    static auto* const system = NextDefinition<int(int, const char*, int, ...)>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool counts = IsOfTheStore(path);
    if (counts && Fails("open", (flags & O_CREAT) != 0 ? ENOSPC : EMFILE))
        return -1;
    const int descriptor = system(directory, path, flags, mode);
    if (descriptor >= 0 && descriptor < cMostDescriptors)
        gIsOfTheStore[descriptor] = counts;
    return descriptor;
}

extern "C" int close(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("close");
    const bool fails = IsOfTheStore(descriptor) && Fails("close", EIO);
    if (descriptor >= 0 && descriptor < cMostDescriptors)
        gIsOfTheStore[descriptor] = false;
    const int result = system(descriptor);
    if (fails)
        errno = EIO;
    return fails ? -1 : result;
}

extern "C" ssize_t read(int descriptor, void* bytes, size_t size) {
    static auto* const system = NextDefinition<ssize_t(int, void*, size_t)>("read");
    return IsOfTheStore(descriptor) && Fails("read", EIO) ? -1 : system(descriptor, bytes, size);
}

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
    static auto* const system = NextDefinition<ssize_t(int, const void*, size_t)>("write");
    return IsOfTheStore(descriptor) && Fails("write", ENOSPC) ? -1
                                                              : system(descriptor, bytes, size);
}

extern "C" int fsync(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("fsync");
    if (IsRefused(descriptor)) {
        errno = EIO;
        return -1;
    }
    return IsOfTheStore(descriptor) && Fails("fsync", EIO) ? -1 : system(descriptor);
}

extern "C" int fdatasync(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("fdatasync");
    return IsOfTheStore(descriptor) && Fails("fdatasync", EIO) ? -1 : system(descriptor);
}

extern "C" int rename(const char* from, const char* to) noexcept {
    static auto* const system = NextDefinition<int(const char*, const char*)>("rename");
    return IsOfTheStore(to) && Fails("rename", ENOSPC) ? -1 : system(from, to);
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const system = NextDefinition<int(const char*, mode_t)>("mkdir");
    return IsOfTheStore(path) && Fails("mkdir", ENOSPC) ? -1 : system(path, mode);
}

extern "C" int stat(const char* path, struct stat* status) noexcept {
    static auto* const system = NextDefinition<int(const char*, struct stat*)>("stat");
    return IsOfTheStore(path) && Fails("stat", EIO) ? -1 : system(path, status);
}

extern "C" int lstat(const char* path, struct stat* status) noexcept {
    static auto* const system = NextDefinition<int(const char*, struct stat*)>("lstat");
    return IsOfTheStore(path) && Fails("lstat", EIO) ? -1 : system(path, status);
}

extern "C" int fstat(int descriptor, struct stat* status) noexcept {
    static auto* const system = NextDefinition<int(int, struct stat*)>("fstat");
    return IsOfTheStore(descriptor) && Fails("fstat", EIO) ? -1 : system(descriptor, status);
}
