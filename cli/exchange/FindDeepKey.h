#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace vxsched {

// Parts that a key of a TOML file may have: a.b.c has three. No file of tasks needs more than four.
inline constexpr std::size_t cMostKeyParts = 16;

// Returns where the first key with more parts has one too many, as an offset; empty if there is none. The
// library that reads TOML recurses once for each part, without a limit of its own: tens of thousands of them
// would exhaust the stack. Exact up to what is no TOML, where the library stops to read.
std::optional<std::size_t> FindDeepKey(std::string_view toml);

}  // namespace vxsched
