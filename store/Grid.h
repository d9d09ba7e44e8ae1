#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

#include <vxsched/Table.h>

namespace vxsched {

// The grid of a repeating task: its due times, one step apart. Pure functions.

// The longest period, in hours, whose step in seconds fits 32 bits.
inline constexpr std::uint32_t cLongestPeriod = 1193046;

// The time between two due times as the add-in computes it: in 32 bits, so that longer periods
// wrap, some of them to zero.
inline std::chrono::seconds StepOf(std::uint32_t period) {
    return std::chrono::seconds(period * 3600U);
}

// True if a process that loads the add-in at `now` would take more than a second to reschedule a
// task that was due at `due`: the add-in adds one step at a time, about a hundred million in a
// second.
inline bool IsTooFarBack(TTime due, std::uint32_t period, TTime now) {
    constexpr std::uint64_t cMostSteps = 100'000'000;
    const std::chrono::seconds step = StepOf(period);
    if (step == std::chrono::seconds(0) || due >= now)
        return false;
    const std::uint64_t late = static_cast<std::uint64_t>(now.time_since_epoch().count()) -
                               static_cast<std::uint64_t>(due.time_since_epoch().count());
    return late / static_cast<std::uint64_t>(step.count()) > cMostSteps;
}

// The first due time at or after `time` of a repeating task that was due at `due`; `due` itself if
// it is not earlier than `time`. `step` must not be zero. For a `due` so far back that the
// difference would overflow, the result is off the grid.
inline TTime NextOnGrid(TTime due, std::chrono::seconds step, TTime time) {
    if (due >= time)
        return due;
    constexpr TTime farthest(std::chrono::seconds(-(1LL << 60)));
    due = std::max(due, farthest);
    return due + (time - due + step - std::chrono::seconds(1)) / step * step;
}

}  // namespace vxsched
