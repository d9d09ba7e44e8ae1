#include "base/IsoTime.h"

#include <fmt/chrono.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

TMoment CurrentMoment() {
    return floor<milliseconds>(std::chrono::system_clock::now());
}

std::optional<std::tm> CalendarOf(std::chrono::sys_seconds time, EZone zone) {
    const std::time_t number = time.time_since_epoch().count();
    std::tm calendar{};
    const std::tm* const converted =
        zone == EZone::cUtc ? gmtime_r(&number, &calendar) : localtime_r(&number, &calendar);
    return converted != nullptr ? std::optional(calendar) : std::nullopt;
}

std::string UtcTime(std::chrono::sys_seconds time, milliseconds fraction) {
    const std::optional<std::tm> calendar = CalendarOf(time, EZone::cUtc);
    return calendar ? fmt::format("{:%FT%T}.{:03}Z", *calendar, fraction.count()) : "";
}

std::string UtcTime(TMoment moment) {
    const auto whole = floor<seconds>(moment);
    return UtcTime(whole, moment - whole);
}

// The distance between two times of these years is in the range of milliseconds.
static constexpr long cFarthestYear = 100'000'000;

std::optional<TMoment> ReadUtcTime(const std::string& string) {
    const char* const end = string.c_str() + string.size();
    long year = 0;
    const auto [afterYear, yearError] = std::from_chars(string.c_str(), end, year);
    tm calendar{};
    const char* const afterTime = strptime(afterYear, "-%m-%dT%T.", &calendar);
    if (yearError != std::errc() || year < -cFarthestYear || year > cFarthestYear ||
        afterTime == nullptr)
        return {};
    calendar.tm_year = static_cast<int>(year - 1900);
    int fraction = 0;
    const auto [afterFraction, fractionError] = std::from_chars(afterTime, end, fraction);
    if (fractionError != std::errc() || std::string_view(afterFraction, end) != "Z")
        return {};
    return TMoment(seconds(timegm(&calendar)) + milliseconds(fraction));
}

std::string LocalTime(TMoment moment) {
    const auto whole = floor<seconds>(moment);
    const std::optional<std::tm> calendar = CalendarOf(whole, EZone::cLocal);
    if (!calendar)
        return "";
    const long minutes = std::labs(calendar->tm_gmtoff) / 60;
    return fmt::format("{:%FT%T}.{:03}{}{:02}:{:02}", *calendar, (moment - whole).count(),
                       calendar->tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
}
