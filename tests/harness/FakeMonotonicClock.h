#pragma once

#include <chrono>
#include <functional>

// While one of these exists, the monotonic clock of this process is frozen, and a sleep
// (std::this_thread::sleep_for) advances it and returns at once. Without one both are libc's. For
// test programs that link its source (see tests/CMakeLists.txt). At most one exists at a time, on
// one thread.
class CFakeMonotonicClock {
public:
    CFakeMonotonicClock();
    ~CFakeMonotonicClock();
    CFakeMonotonicClock(const CFakeMonotonicClock&) = delete;
    CFakeMonotonicClock& operator=(const CFakeMonotonicClock&) = delete;

    std::chrono::nanoseconds slept{0};  // by all sleeps together
    std::function<void()> onSleep;      // after each sleep
};
