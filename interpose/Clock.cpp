#include "interpose/Clock.h"

#include "interpose/NextDefinition.h"

#include <atomic>
#include <cerrno>
#include <limits>

static std::atomic<bool> gIsFrozen{false};
static std::atomic<void (*)(time_t)> gListener{nullptr};

CFrozenClock::CFrozenClock() {
    gIsFrozen = true;
}

CFrozenClock::~CFrozenClock() {
    gIsFrozen = false;
}

void SetTimeListener(void (*listener)(time_t now)) {
    gListener = listener;
}

// Called by the add-in at each tick and in its exported functions, and by the program, on any
// thread. Unlike libc's it calls the listener, and returns the smallest time_t while the clock is
// frozen. It reads the coarse clock, as libc's does. Never fails; errno is unchanged.
INTERPOSED time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (const auto listener = gListener.load(std::memory_order_relaxed)) {
        const int error = errno;
        listener(now.tv_sec);
        errno = error;
    }
    if (gIsFrozen.load(std::memory_order_relaxed))
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}
