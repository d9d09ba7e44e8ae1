// Fuzzes the parsers of times and periods with any bytes as the argument, and the formatters with
// any times: what is formatted must be parsed as the same again.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "base/IsoTime.h"
#include "cli/time/PastTime.h"
#include "cli/time/PeriodFormat.h"
#include "cli/time/TimeFormat.h"
#include "fuzz/Require.h"

using namespace vxsched;
using std::chrono::seconds;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setenv("TZ", ":Europe/Berlin", 1);
    tzset();
    return 0;
}

// 2026-11-22 and the night in which the clock of that zone is set forward, and back.
static constexpr std::array<TTime, 3> cNows = {
    TTime(seconds(1795305600)), TTime(seconds(1774745999)), TTime(seconds(1792890000))};

static void RequireMessage(const CParseError& error, std::string_view argument) {
    const std::string message = error.what();
    RequireShown(message);
    Require(std::count(message.begin(), message.end(), '\n') == 2, "a message not of three lines");
    Require(error.Offset() <= argument.size(), "an error beyond the end of the argument");
}

static void RequireSameAgain(TTime time) {
    Require(ParseTime(FormatIsoTime(time), cNows[0]) == time, "a time in UTC is parsed as another");
    // Of a local time that exists twice the first is parsed.
    const std::string local = FormatTime(time, EZone::cLocal);
    Require(FormatTime(ParseTime(local, cNows[0]), EZone::cLocal) == local,
            "a local time is parsed as another");
}

static void ParseTimeOf(std::string_view argument) {
    for (const TTime now : cNows) {
        try {
            RequireSameAgain(ParseTime(argument, now));
        } catch (const CParseError& error) {
            RequireMessage(error, argument);
        }
        try {
            RequireSameAgain(ParsePastTime(argument, now));
        } catch (const CParseError& error) {
            RequireMessage(error, argument);
        }
    }
}

static void ParsePeriodOf(std::string_view argument) {
    try {
        const std::uint32_t hours = ParsePeriod(argument);
        Require(ParsePeriod(FormatPeriod(hours)) == hours, "a period is parsed as another");
    } catch (const CParseError& error) {
        RequireMessage(error, argument);
    }
}

// A table may have any time.
static void FormatAny(std::int64_t number) {
    const TTime time{seconds(number)};
    RequireShown(FormatIsoTime(time) + FormatTime(time, EZone::cLocal));
    RequireShown(FormatDistance(Between(cNows[0], time)) + FormatDistance(Between(time, cNows[0])));
    if (CalendarOf(time, EZone::cUtc))
        RequireSameAgain(time);
    if (const std::optional<TMoment> moment = ReadUtcTime(UtcTime(time)))
        Require(*moment == time, "a time of the history is read as another");
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view argument(reinterpret_cast<const char*>(data), size);
    ParseTimeOf(argument);
    ParsePeriodOf(argument);
    if (const std::optional<TMoment> moment = ReadUtcTime(std::string(argument))) {
        const std::string written = UtcTime(*moment);
        Require(ReadUtcTime(written) == moment, "a time of the history is read as another");
    }
    std::int64_t number = 0;
    std::memcpy(&number, data, std::min(size, sizeof number));
    FormatAny(number);
    return 0;
}
