#include "base/OpenToAppend.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

static bool Fits(mode_t kind, EAppendable what) {
    return S_ISREG(kind) || (S_ISCHR(kind) && what != EAppendable::cFile) ||
           (S_ISFIFO(kind) && what == EAppendable::cAlsoAPipe);
}

CDescriptor OpenToAppend(const std::string& path, int flags, mode_t mode, EAppendable what,
                         std::string& whyNot) {
    CDescriptor file(open(path.c_str(),
                          O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags,
                          mode));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        whyNot =
            errno == ENXIO ? "it is not a file, or a FIFO without a reader" : std::strerror(errno);
        return CDescriptor();
    }
    if (!Fits(status.st_mode, what)) {
        whyNot = "it is not a file";
        return CDescriptor();
    }
    // O_NONBLOCK was for open() only: callers expect write() to block, on a terminal for example.
    if (!S_ISFIFO(status.st_mode))
        fcntl(file.Get(), F_SETFL, O_APPEND);
    return file;
}
