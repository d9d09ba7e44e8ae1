// The parts of a time that a person types, whether it is to come or past. Each function reads what
// comes next and throws CParseError if that is something else.

#pragma once

#include <date/date.h>

#include <chrono>
#include <optional>
#include <string_view>

#include <vxsched/Table.h>
#include "base/CParser.h"
#include "base/WallTime.h"

namespace vxsched {

inline constexpr char cSkippedByClock[] =
    "this local time does not exist: the clock is set forward over it";

// `noon` or `midnight`; nothing if `word` is neither.
std::optional<std::chrono::seconds> TimeOfDayCalled(std::string_view word);

// 14:30, 14:30:15, noon or midnight.
std::chrono::seconds ReadTimeOfDay(CParser& reader);

bool IsAtZone(const CParser& reader);

// The first time when a local clock shows `wall`. Throws CParseError for `offset` if there is none.
TTime FirstShowing(TWallTime wall, const CParser& reader, std::size_t offset);

// 2026-11-21, and a time of day and a zone if they follow.
TTime ReadDateAndTime(CParser& reader);

// The time of day that follows, midnight if none does, `day` days after today.
TTime ReadTimeOfNamedDay(CParser& reader, TTime now, date::days day);

// Sunday to Saturday in English, whole or as three letters; nothing for any other word.
std::optional<date::weekday> WeekdayCalled(std::string_view word);

TTime ReadSecondsSince1970(CParser& reader);

// Throws CParseError if the argument ends after its first word. It does if a time of several words
// was not quoted: the shell passes each word as an argument of its own.
void RequireSecondWord(CParser& reader, const char* expected, const char* example);

}  // namespace vxsched
