#pragma once

#include <algorithm>
#include <chrono>

// How long to wait before something that failed is tried again: twice as long after each failure,
// up to a limit, so that a lasting one, such as a full disk, costs next to nothing. For one thread.
class CRetryInterval {
public:
    CRetryInterval(std::chrono::milliseconds first, std::chrono::milliseconds longest)
        : shortest(first), limit(longest), next(first) {}

    std::chrono::milliseconds Get() const { return next; }
    void Failed() { next = std::min(2 * next, limit); }
    void Succeeded() { next = shortest; }

private:
    const std::chrono::milliseconds shortest;
    const std::chrono::milliseconds limit;
    std::chrono::milliseconds next;
};
