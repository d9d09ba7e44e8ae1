#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

// Times by the calendar, in UTC and in the local zone: TZ's, or else the system's, as it was at the
// process's first use or last tzset(). Any thread may call the functions of this header, but not
// while another changes TZ.

using TMoment = std::chrono::sys_time<std::chrono::milliseconds>;

// The system clock's time, for logs and records. Due times are compared with vxsched::Now(): that
// is the clock of the add-in, in seconds, which its load finds frozen.
TMoment CurrentMoment();

enum class EZone { cLocal, cUtc };

// The date and the time of day in a zone. Empty if the year exceeds the range of int.
std::optional<std::tm> CalendarOf(std::chrono::sys_seconds time, EZone zone);

// Formats a time as 2026-11-20T13:30:05.123Z; `fraction` is the milliseconds. Empty if the year exceeds
// the range of int.
std::string UtcTime(std::chrono::sys_seconds seconds,
                    std::chrono::milliseconds fraction = std::chrono::milliseconds(0));
std::string UtcTime(TMoment moment);

// Parses what UtcTime() writes; empty for any other string.
std::optional<TMoment> ReadUtcTime(const std::string& string);

// Formats a time as 2026-11-20T14:30:05.123+01:00, in the local zone. Empty if the year exceeds the
// range of int.
std::string LocalTime(TMoment moment);
