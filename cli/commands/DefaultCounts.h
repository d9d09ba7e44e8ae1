// How many lines a command prints unless it is asked for another number.

#pragma once

#include <cstddef>

namespace vxsched {

inline constexpr std::size_t cDefaultComingRuns = 10;
inline constexpr std::size_t cDefaultRecords = 20;

}  // namespace vxsched
