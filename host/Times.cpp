#include "host/Times.h"

#include <fmt/format.h>

#include <cstdlib>
#include <ctime>

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

static std::string Format(const tm& calendar, const char* format) {
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &calendar)};
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
