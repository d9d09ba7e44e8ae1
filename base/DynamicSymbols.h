#pragma once

#include <optional>
#include <set>
#include <string>

// The functions and data that a shared library exports, and those that it expects of others, by
// their names as linked.
struct TDynamicSymbols {
    std::set<std::string> defined;
    std::set<std::string> undefined;
};

// Reads the file at `path` and does not load it, since a load has effects. Empty if it is not a
// shared library for x86-64; of a damaged one, what can be read. Throws std::system_error if the
// file cannot be read or is none, a FIFO for instance. Blocks for disk access only.
std::optional<TDynamicSymbols> ReadDynamicSymbols(const std::string& path);
