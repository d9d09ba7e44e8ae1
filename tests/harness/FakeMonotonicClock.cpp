#include "FakeMonotonicClock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

static CFakeMonotonicClock* gFake = nullptr;
static constexpr time_t cBegin = 1000;  // seconds

CFakeMonotonicClock::CFakeMonotonicClock() {
    gFake = this;
}

CFakeMonotonicClock::~CFakeMonotonicClock() {
    gFake = nullptr;
}

// The two functions below are called by the test and by the code under test, through the C++
// library as well. They come before libc's; without a CFakeMonotonicClock they do what libc does,
// errno included.

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (gFake == nullptr || clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(gFake->slept);
    *now = {.tv_sec = cBegin + seconds.count(), .tv_nsec = (gFake->slept - seconds).count()};
    return 0;
}

extern "C" int nanosleep(const timespec* time, timespec* left) {
    if (gFake == nullptr)
        return static_cast<int>(syscall(SYS_nanosleep, time, left));
    gFake->slept += std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    if (gFake->onSleep)
        gFake->onSleep();
    return 0;
}
