#include "base/CDeadline.h"

#include <algorithm>
#include <thread>

CDeadline::CDeadline(std::chrono::nanoseconds timeout)
    : end(std::chrono::steady_clock::now() + timeout) {}

std::chrono::nanoseconds CDeadline::Left() const {
    return end - std::chrono::steady_clock::now();
}

bool CDeadline::HasPassed() const {
    return Left() <= std::chrono::nanoseconds(0);
}

timespec CDeadline::TimeLeft() const {
    const auto left = std::max(Left(), std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    return {.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
}

bool CDeadline::Pause(std::chrono::nanoseconds pause) const {
    const std::chrono::nanoseconds left = Left();
    if (left <= std::chrono::nanoseconds(0))
        return false;
    std::this_thread::sleep_for(std::min(pause, left));
    return true;
}
