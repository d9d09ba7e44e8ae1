#pragma once

#include <cstdio>

#include "VXC_Export.h"

// A command run by the shell with one pipe to or from it, as POSIX popen; the pipe's end in this
// process is closed when another program is started. For one thread at a time.
class VXC_EXPORT CPopen {
public:
    // Starts `command` through the shell. `mode` is "r" to read its standard output, "w" for its
    // standard input. IsValid() returns whether that worked; nothing is thrown.
    CPopen(const char* command, const char* mode);

    // Closes the pipe and waits for the command, as Close().
    ~CPopen();

    CPopen(const CPopen&) = delete;
    CPopen& operator=(const CPopen&) = delete;

    bool IsValid() const;

    // Reads the command's output until `size` - 1 bytes have come or the output ends, then writes a
    // zero after them: the buffer is a terminated string after every call, also when nothing could
    // be read. Returns the number of bytes without the zero, 0 at the end, -1 on an error with
    // nothing read. Goes on after a signal handler ran. A size below 1 reads and writes nothing and
    // returns 0.
    int Read(void* buffer, int size);

    // Closes the pipe and waits for the command to end. Returns its wait status, or -1 when there
    // is none (not valid, closed before, or collected elsewhere).
    int Close();

private:
    std::FILE* pipe;
};
