#include "base/IsoTime.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

static std::string Format(const tm& calendar, const char* format) {
    char buffer[64];
    return {buffer, std::strftime(buffer, sizeof buffer, format, &calendar)};
}

TMoment Now() {
    return floor<milliseconds>(std::chrono::system_clock::now());
}

std::string UtcTime(std::chrono::sys_seconds time, milliseconds rest) {
    const time_t number = time.time_since_epoch().count();
    tm calendar{};
    if (gmtime_r(&number, &calendar) == nullptr)
        return "";
    return fmt::format("{}.{:03}Z", Format(calendar, "%FT%T"), rest.count());
}

std::string UtcTime(TMoment moment) {
    const auto whole = floor<seconds>(moment);
    return UtcTime(whole, moment - whole);
}

std::optional<TMoment> ReadUtcTime(const std::string& string) {
    const char* const end = string.c_str() + string.size();
    long year = 0;
    const auto [afterYear, yearError] = std::from_chars(string.c_str(), end, year);
    tm calendar{};
    const char* const afterTime = strptime(afterYear, "-%m-%dT%T.", &calendar);
    if (yearError != std::errc() || !std::in_range<int>(year - 1900) || afterTime == nullptr)
        return {};
    calendar.tm_year = static_cast<int>(year - 1900);
    int rest = 0;
    const auto [afterRest, restError] = std::from_chars(afterTime, end, rest);
    if (restError != std::errc() || std::string_view(afterRest, end) != "Z")
        return {};
    return TMoment(seconds(timegm(&calendar)) + milliseconds(rest));
}

std::string LocalTime(TMoment moment) {
    const auto whole = floor<seconds>(moment);
    const time_t number = whole.time_since_epoch().count();
    tm calendar{};
    if (localtime_r(&number, &calendar) == nullptr)
        return "";
    const long minutes = std::labs(calendar.tm_gmtoff) / 60;
    return fmt::format("{}.{:03}{}{:02}:{:02}", Format(calendar, "%FT%T"), (moment - whole).count(),
                       calendar.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
}
