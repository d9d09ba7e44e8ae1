#pragma once

#include <unistd.h>

#include <array>

// Reads and drops all that a non-blocking descriptor has, such as the events of inotify.
inline void DrainDescriptor(int descriptor) {
    std::array<char, 4096> ignored;
    while (read(descriptor, ignored.data(), ignored.size()) > 0) {
    }
}
