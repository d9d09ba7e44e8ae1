// A cron expression: the minutes of a wall clock at which something is launched.

#pragma once

#include <date/date.h>

#include <array>
#include <string>

#include "calendar/CronField.h"

namespace vxsched {

// Immutable; ParseCron() makes one. Any thread may use it.
class CCronExpression {
public:
    using TFields = std::array<TCronField, cCronFields>;

    // @reboot: a launch at each startup, and none by the clock.
    CCronExpression() = default;
    // Requires a value, or the last day, in each field.
    explicit CCronExpression(const TFields& all) : isReboot(false), fields(all) {}

    bool IsReboot() const { return isReboot; }
    const TCronField& Field(ECronField which) const {
        return fields[static_cast<std::size_t>(which)];
    }

    // Whether neither the minute nor the hour begins with *. Only such a launch is moved by a
    // change of the clock; the others follow the time that it shows.
    bool IsAtFixedTime() const;

    // Whether a day has launches. Of day of the month and day of the week either suffices, unless
    // one of them begins with *: then both are needed.
    bool HasDay(const date::year_month_day& day) const;

    // Whether there is a day that has launches: not on 30 February.
    bool EverComes() const;

    // The one way to write what expressions of the same meaning have in common. ParseCron() reads
    // it as the same expression.
    std::string Normalised() const;

    bool operator==(const CCronExpression&) const = default;

private:
    bool isReboot = true;
    TFields fields = {};
};

}  // namespace vxsched
