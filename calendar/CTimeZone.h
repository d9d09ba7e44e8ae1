// The wall time of a zone, from the system's zone files. TZ of the environment has no part in it.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "calendar/CZoneRule.h"

namespace vxsched {

// Immutable: what the files have when it is made. Any thread may use it.
class CTimeZone {
public:
    // The zone of a name such as Europe/Berlin. Throws CCalendarError if there is no such file, or
    // it is no zone.
    static CTimeZone Named(std::string_view name);

    // The machine's zone: that of /etc/localtime, or another path. Its name is what a link names in
    // the system's directory of zones, "localtime" for a file without a name, UTC if there is none.
    // Throws CCalendarError if it is no zone.
    static CTimeZone OfMachine(const std::string& path = "/etc/localtime");

    static CTimeZone Utc() { return CTimeZone(); }

    const std::string& Name() const { return name; }

    // A time during which the clock is not changed.
    using TPeriod = CZoneRule::TPeriod;
    TPeriod PeriodAt(std::chrono::sys_seconds time) const;

private:
    struct TChange {
        std::chrono::sys_seconds time;
        std::chrono::seconds offset;  // from then on
    };

    CTimeZone() = default;
    CTimeZone(std::string zoneName, std::string_view content);

    std::string name = "UTC";
    std::chrono::seconds first{0};  // before all changes
    std::vector<TChange> changes;
    std::optional<CZoneRule> rule;  // after them; the last offset stays if there is none
};

}  // namespace vxsched
