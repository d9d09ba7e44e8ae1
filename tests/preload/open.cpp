// Passes open() on to openat(), which the other source of the preloaded library defines. Called by
// the program, its libraries and the add-in, on whichever thread.

#include <fcntl.h>

#include <cstdarg>

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(AT_FDCWD, path, flags, mode);
}
