#pragma once

#include <chrono>
#include <ctime>

// When a wait ends, by the monotonic clock: setting the system's clock neither shortens nor
// prolongs it. Where the system has no call with a timeout, as for flock(), this is the wait:
//
//   const CDeadline deadline(timeout);
//   while (!TryIt()) {
//       if (!deadline.Pause())
//           throw ...;
//   }
//
// tries at least once, and a last time when the timeout has just passed. Nothing cancels a pause: a
// thread that is to stop early waits for a descriptor instead. A plain value; its calls never fail.
class CDeadline {
public:
    // `timeout` counts from now; zero or less has passed already. At most a hundred years.
    explicit CDeadline(std::chrono::nanoseconds timeout);

    bool HasPassed() const;

    // The time left, for calls that take a timeout of their own; zero once it has passed.
    timespec TimeLeft() const;

    // Blocks for `pause`, or until the deadline if that comes first; signal handlers do not shorten
    // it. Returns false, without blocking, once the deadline has passed.
    bool Pause(std::chrono::nanoseconds pause = std::chrono::milliseconds(5)) const;

private:
    std::chrono::nanoseconds Left() const;

    std::chrono::steady_clock::time_point end;
};
