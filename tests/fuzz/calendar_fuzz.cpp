// Fuzzes the parsers of cron expressions, of their short forms and of the rules of zones. What is
// accepted is written and parsed again as the same, and its launches are in order, whichever time
// they are asked from; what is refused has a short message without control characters.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "calendar/CCalendarError.h"
#include "calendar/CronForms.h"
#include "calendar/Describe.h"
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"
#include "fuzz/Require.h"

using namespace vxsched;
using std::chrono::seconds;
using std::chrono::sys_seconds;

static void RequireMessage(const CCalendarError& error) {
    const std::string_view message = error.what();
    RequireShown(message);
    Require(message.find('\n') == std::string_view::npos, "a message of several lines");
    Require(message.size() < 2000, "a long message");
}

static void RequireLaunches(const CCronExpression& expression) {
    static const CTimeZone zone = CTimeZone::Named("Europe/Berlin");
    // Summer, and the nights in which the clock is set forward and back.
    for (const long begin : {1785000000L, 1774740000L, 1792880000L}) {
        sys_seconds time{seconds(begin)};
        for (int number = 0; number < 4; ++number) {
            const std::optional<sys_seconds> next = NextLaunch(expression, zone, time);
            Require(next.has_value() != expression.IsReboot(), "an expression without a launch");
            if (!next)
                break;
            Require(*next > time, "a launch that is past");
            Require(NextLaunch(expression, zone, *next - seconds(1)) == next,
                    "another launch from another time");
            time = *next;
        }
    }
}

static void RequireSameAgain(const CCronExpression& expression) {
    const std::string normalised = expression.Normalised();
    RequireShown(normalised + Describe(expression));
    Require(ParseCron(normalised) == expression, "an expression is parsed as another");
    Require(ParseCron(normalised).Normalised() == normalised, "a form that is not normal");
    RequireLaunches(expression);
}

static void ParseRule(std::string_view text) {
    const CZoneRule rule(text);
    for (const long number : {0L, 1774746000L, 4000000000L}) {
        const sys_seconds time{seconds(number)};
        const CZoneRule::TPeriod period = rule.PeriodAt(time);
        Require(period.begin <= time && time < period.end, "a time outside of its period");
    }
}

template <typename Call>
static void Try(std::string_view text, const Call& call) {
    try {
        call(text);
    } catch (const CCalendarError& error) {
        RequireMessage(error);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Try(text, [](std::string_view one) { RequireSameAgain(ParseCron(one)); });
    Try(text, [](std::string_view one) { RequireSameAgain(EveryDay(one)); });
    Try(text, [](std::string_view one) { RequireSameAgain(EveryWeek(one)); });
    Try(text, [](std::string_view one) { RequireSameAgain(EveryMonth(one)); });
    Try(text, ParseRule);
    return 0;
}
