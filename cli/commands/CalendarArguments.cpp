#include "cli/commands/CalendarArguments.h"

#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>

#include "base/CParseError.h"
#include "base/CParser.h"
#include "base/Duration.h"
#include "base/IsoTime.h"
#include "calendar/CCalendarError.h"
#include "calendar/CronForms.h"
#include "cli/time/TimeFormat.h"
#include "jobs/JobOptions.h"

namespace vxsched {

namespace {

using std::chrono::minutes;

CCronExpression ExpressionOf(const std::string& form, const std::string& value) {
    try {
        return form == "daily"    ? EveryDay(value)
               : form == "weekly" ? EveryWeek(value)
                                  : EveryMonth(value);
    } catch (const CCalendarError& error) {
        throw CUsageError(fmt::format("--{}: {}", form, error.what()));
    }
}

// A period below an hour; empty for any other, which ParsePeriod() reads.
std::optional<minutes> PartOfHour(const std::string& every) {
    CParser parser("period", every);
    try {
        const std::chrono::seconds period = ReadDuration(parser, minutes(1), "");
        parser.ExpectEnd();
        if (period > minutes(0) && period < std::chrono::hours(1))
            return std::chrono::duration_cast<minutes>(period);
    } catch (const CParseError&) {
        // ParsePeriod() says what is wrong.
    }
    return {};
}

}  // namespace

TTaskArguments ByCron(TTaskArguments arguments) {
    std::vector<std::string>& cron = arguments.options[std::string(cCronOption)];
    for (const auto& [form, value] : arguments.calendar)
        cron.push_back(ExpressionOf(form, value).Normalised());
    arguments.calendar.clear();
    if (const auto part = arguments.every ? PartOfHour(*arguments.every) : std::nullopt) {
        try {
            cron.push_back(EveryPartOfHour(*part).Normalised());
        } catch (const CCalendarError& error) {
            throw CUsageError(fmt::format("--every: {}", error.what()));
        }
        arguments.every.reset();
    }
    if (cron.size() > 1)
        throw CUsageError("two calendars; give one of --cron, --daily, --weekly and --monthly");
    const bool removes = !cron.empty() && cron.front().empty();
    if (!cron.empty() && !removes && (arguments.at || arguments.every))
        throw CUsageError(
            fmt::format("--{} and a calendar, which sets the due times; give one of them",
                        arguments.at ? "at" : "every"));
    if (cron.empty())
        arguments.options.erase(std::string(cCronOption));
    if (const auto until = arguments.options.find(std::string(cUntilOption));
        until != arguments.options.end()) {
        for (std::string& value : until->second)
            value = value.empty() ? value : UtcTime(ParseTime(value, Now()));
    }
    return arguments;
}

}  // namespace vxsched
