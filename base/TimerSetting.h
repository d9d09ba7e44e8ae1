#pragma once

#include <sys/timerfd.h>

#include <chrono>

// The setting of a timer, for timerfd_settime(), that expires once, at or after `time` as its flags
// say. Zero stops the timer.
inline itimerspec ExpireOnce(std::chrono::nanoseconds time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {.it_interval = {},
            .it_value = {.tv_sec = seconds.count(),
                         .tv_nsec = std::chrono::nanoseconds(time - seconds).count()}};
}
