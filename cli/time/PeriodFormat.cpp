#include "cli/time/PeriodFormat.h"

#include <chrono>

#include "base/CParser.h"
#include "base/Duration.h"

namespace vxsched {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::hours cLongestPeriod = 1193046h;  // a longer step wraps at 2^32 seconds

constexpr std::uint32_t cHoursOfDay = 24;
constexpr std::uint32_t cHoursOfWeek = 7 * cHoursOfDay;

}  // namespace

std::uint32_t ParsePeriod(std::string_view argument) {
    CParser reader("period", argument);
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    if (reader.IsAtEnd())
        reader.Fail(offset, "it is empty; expected 6h, 1d, 2w or once");
    if (reader.Next() == '-')
        reader.Fail(offset, "a period cannot be negative");
    if (reader.IsAtLetter()) {
        if (reader.TakeWord() != "once")
            reader.Fail(offset, "expected 6h, 1d, 2w or once");
        reader.ExpectEnd();
        return 0;
    }
    const std::chrono::seconds period =
        ReadDuration(reader, 1h, "a period must be a whole number of hours");
    reader.ExpectEnd();
    if (period == 0s)
        reader.Fail(offset,
                    "a period must not be zero; use once for a task that runs a single time");
    if (period > cLongestPeriod)
        reader.Fail(offset,
                    "the longest period is " + std::to_string(cLongestPeriod.count()) + "h");
    return static_cast<std::uint32_t>(period / 1h);
}

std::string FormatPeriod(std::uint32_t hours) {
    if (hours == 0)
        return "once";
    if (hours % cHoursOfWeek == 0)
        return std::to_string(hours / cHoursOfWeek) + 'w';
    if (hours % cHoursOfDay == 0)
        return std::to_string(hours / cHoursOfDay) + 'd';
    return std::to_string(hours) + 'h';
}

}  // namespace vxsched
