#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

#include <vxsched/Table.h>

namespace vxsched {

// The longest period, in hours: beyond it the step wraps.
inline constexpr std::uint32_t cLongestPeriod = 1193046;

// The step between two starts as the add-in reckons it: in 32 bits, which a long period wraps.
inline std::chrono::seconds StepOf(std::uint32_t period) {
    return std::chrono::seconds(period * 3600U);
}

// Whether a process that loads the library at `now` would catch up with `start` for more than a
// second: it adds one step at a time, some hundred million of them in a second.
inline bool IsTooFarBack(TTime start, std::uint32_t period, TTime now) {
    constexpr std::uint64_t cMostSteps = 100'000'000;
    const std::chrono::seconds step = StepOf(period);
    if (step == std::chrono::seconds(0) || start >= now)
        return false;
    const std::uint64_t late = static_cast<std::uint64_t>(now.time_since_epoch().count()) -
                               static_cast<std::uint64_t>(start.time_since_epoch().count());
    return late / static_cast<std::uint64_t>(step.count()) > cMostSteps;
}

// The first time at or after `time` on the grid of a repeating task that was due at `start`, in one
// step; `start` itself when it is no earlier. `step` is not zero. A start so far back that the
// distance has no number loses its phase.
inline TTime NextOnGrid(TTime start, std::chrono::seconds step, TTime time) {
    if (start >= time)
        return start;
    constexpr TTime farthest(std::chrono::seconds(-(1LL << 60)));
    start = std::max(start, farthest);
    return start + (time - start + step - std::chrono::seconds(1)) / step * step;
}

}  // namespace vxsched
