#include "interpose/Clock.h"

#include "interpose/NextDefinition.h"

#include <atomic>
#include <cerrno>
#include <limits>

static std::atomic<bool> gIsFrozen{false};
static std::atomic<time_t (*)(time_t)> gHandler{nullptr};

CFrozenClock::CFrozenClock() {
    gIsFrozen = true;
}

CFrozenClock::~CFrozenClock() {
    gIsFrozen = false;
}

void SetTimeHandler(time_t (*handler)(time_t now)) {
    gHandler = handler;
}

// Called by the add-in at each tick and in its exported functions, and by the program, on any
// thread. Unlike libc's it reads the precise clock: the coarse one lags by milliseconds, so that a
// tick at the very moment of a due time would not find the task due. It returns what the handler
// does, if there is one, and the smallest time_t while the clock is frozen. Never fails; errno is
// unchanged.
INTERPOSED time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (const auto handler = gHandler.load(std::memory_order_relaxed)) {
        const int error = errno;
        now.tv_sec = handler(now.tv_sec);
        errno = error;
    }
    if (gIsFrozen.load(std::memory_order_relaxed))
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}
