#pragma once

#include <cstdint>
#include <string>

#include "TableFile.h"

// A task for the add-in to load, whose program has the task's name.
inline TRow Task(const std::string& name, std::int64_t next, std::uint32_t period) {
    return {name, next, 0, period, "/" + name, "", 0};
}
