#pragma once

#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null, with the access mode of `flags`, as those of descriptors 0 to 2 that the parent left
// closed. Otherwise the next file or socket to be opened would get the number of standard output or
// error, and what is meant for these would be written into it. To be called first.
inline void OpenStandardDescriptors(int flags) {
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", flags);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0)
        close(descriptor);
}
