#pragma once

#include "VXC_Export.h"

// A program's part in the files that COpen opens: it may open some of them itself, for instance a
// new file that replaces the one of that name once it is complete. Without a hook COpen opens every
// file itself.

// The result of VXC_FileHook::open for a file that COpen is to open itself. Nothing more about that
// file is reported.
inline constexpr int cVXC_OpenAsUsual = -2;

// The functions are called on the thread that uses the COpen, and must not throw.
struct VXC_FileHook {
    // Opens a file in place of COpen, with the parameters of POSIX open; `flags` contain O_CLOEXEC.
    // Returns the descriptor; -1, with the reason in errno, if that fails (after EINTR it is called
    // again); or cVXC_OpenAsUsual. COpen owns the descriptor until it has it closed.
    int (*open)(const char* path, int flags, unsigned int mode);

    // The system failed to read a file that open() has opened; `error` is the errno. The end of the
    // file reached too early is not such a failure.
    void (*readFailed)(int error);

    // Closes a file that open() has opened, with result and errno as of POSIX close. `isComplete`:
    // no operation on the file has failed, and no exception is ending the scope that opened it.
    int (*close)(int descriptor, bool isComplete);
};

// Sets the hook of every COpen constructed from now on; null: none. It is used until the last file
// that it opened is closed, and is not copied. Any thread may set it.
VXC_EXPORT void VXC_SetFileHook(const VXC_FileHook* hook);
