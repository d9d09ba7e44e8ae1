#pragma once

#include <chrono>

// A processor time as the history and the log show it.
inline double InSeconds(std::chrono::microseconds time) {
    return std::chrono::duration<double>(time).count();
}
