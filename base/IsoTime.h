#pragma once

#include <chrono>
#include <optional>
#include <string>

using TMoment = std::chrono::sys_time<std::chrono::milliseconds>;

// The system clock's time. Any thread may call the functions of this header.
TMoment Now();

// Formats a time as 2026-11-20T13:30:05.123Z; `rest` is the milliseconds. Empty if the year exceeds
// the range of int.
std::string UtcTime(std::chrono::sys_seconds seconds,
                    std::chrono::milliseconds rest = std::chrono::milliseconds(0));
std::string UtcTime(TMoment moment);

// Parses what UtcTime() writes; empty for any other string.
std::optional<TMoment> ReadUtcTime(const std::string& string);

// Formats a time as 2026-11-20T14:30:05.123+01:00, in the local zone (TZ). Empty if the year
// exceeds the range of int.
std::string LocalTime(TMoment moment);
