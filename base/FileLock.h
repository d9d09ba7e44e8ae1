#pragma once

#include <fcntl.h>

#include "base/CDescriptor.h"

// Takes the advisory lock of a whole file for writing, by `command`: F_SETLK and F_SETLKW lock it for
// this process, F_OFD_SETLK and F_OFD_SETLKW for the open file, which a process made by a fork shares.
// Returns false with the reason in errno. Any thread may call it.
inline bool LockForWriting(const CDescriptor& file, int command) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    return fcntl(file.Get(), command, &whole) == 0;
}
