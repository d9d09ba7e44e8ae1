// calendar: what a cron expression means, and when it launches next.

#include <nlohmann/json.hpp>

#include "calendar/CCalendarError.h"
#include "calendar/Describe.h"
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"
#include "cli/commands/Commands.h"
#include "cli/output/Json.h"

namespace vxsched {

namespace {

// Times that have a form as text, with room for a last launch.
TTime ReadBegin(const std::string& from) {
    const TTime begin = from.empty() ? Now() : ParseTime(from, Now());
    if (begin < date::sys_days(date::year(1) / 1 / 2) ||
        begin >= date::sys_days(date::year(9999) / 1 / 1))
        throw CUsageError("--from: the time must be in the years 1 to 9998");
    return begin;
}

// A wrong argument is a usage error, a wrong zone of the machine is not.
template <typename Read>
auto ReadArgument(const Read& read) {
    try {
        return read();
    } catch (const CCalendarError& error) {
        throw CUsageError(error.what());
    }
}

// 2026-11-21 14:30:00 +01:00, with seconds of the offset only where there are any: long ago.
std::string TimeAndOffset(TTime time, std::chrono::seconds offset) {
    const date::hh_mm_ss parts(std::chrono::abs(offset));
    std::string text = FormatTime(time + offset, EZone::cUtc);
    text += fmt::format(" {}{:02}:{:02}", offset.count() < 0 ? '-' : '+', parts.hours().count(),
                        parts.minutes().count());
    if (parts.seconds().count() != 0)
        text += fmt::format(":{:02}", parts.seconds().count());
    return text;
}

}  // namespace

TExitStatus Calendar(const TCommon& common, const TCalendarOptions& options, COutput& output) {
    const CCronExpression expression = ReadArgument([&] { return ParseCron(options.expression); });
    const CTimeZone zone = options.zone.empty()
                               ? CTimeZone::OfMachine()
                               : ReadArgument([&] { return CTimeZone::Named(options.zone); });
    const TTime begin = ReadBegin(options.from);
    const CTimeZone shownZone = common.zone == EZone::cUtc ? CTimeZone::Utc() : zone;
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    CColumns columns({"TIME", "LEFT"});
    std::optional<TTime> launch = begin;
    for (std::size_t number = 0; number < options.count; ++number) {
        launch = NextLaunch(expression, zone, *launch);
        if (!launch)
            break;
        if (common.json) {
            json.push_back(launch->time_since_epoch().count());
            continue;
        }
        columns.Add(TimeAndOffset(*launch, shownZone.PeriodAt(*launch).offset));
        columns.Add(FormatDistance(Between(begin, *launch)));
    }
    if (common.json) {
        output.Raw(Document({{"expression", expression.Normalised()},
                             {"description", Describe(expression)},
                             {"zone", zone.Name()},
                             {"launches", json}}));
        return cDone;
    }
    output.Line("Expression   " + expression.Normalised());
    output.Line("In words     " + Describe(expression));
    output.Line("Zone         " + zone.Name());
    if (expression.IsReboot())
        output.Line("Launches     none by the clock");
    else if (columns.Count() == 0)
        output.Line("Launches     none before the year 9999");
    else
        columns.Print(output);
    return cDone;
}

}  // namespace vxsched
