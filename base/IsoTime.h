#pragma once

#include <chrono>
#include <optional>
#include <string>

using TMoment = std::chrono::sys_time<std::chrono::milliseconds>;

TMoment Now();

// As 2026-11-20T13:30:05.123Z, whatever the year; empty for a time whose year no calendar holds.
std::string UtcTime(std::chrono::sys_seconds seconds,
                    std::chrono::milliseconds rest = std::chrono::milliseconds(0));
std::string UtcTime(TMoment moment);

// The time that UtcTime() wrote so; none for any other text.
std::optional<TMoment> ReadUtcTime(const std::string& text);

// As 2026-11-20T14:30:05.123+01:00, in the zone of this process.
std::string LocalTime(TMoment moment);
