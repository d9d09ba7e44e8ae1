#include "base/WallTime.h"

#include <set>

#include "base/IsoTime.h"

namespace vxsched {

namespace {

using namespace std::chrono_literals;
using std::chrono::sys_seconds;

// More than any zone's offset from UTC: TZ allows less than 25 hours.
constexpr std::chrono::hours cFarthest = 26h;

// 0 for years that exceed tm_year, near the ends of the range of times.
std::chrono::seconds LocalOffsetAt(sys_seconds time) {
    const std::optional<std::tm> calendar = CalendarOf(time, EZone::cLocal);
    return std::chrono::seconds(calendar ? calendar->tm_gmtoff : 0);
}

}  // namespace

TWallTime LocalWallTimeAt(sys_seconds time) {
    return TWallTime(time.time_since_epoch() + LocalOffsetAt(time));
}

// Not by mktime(): of two possible times it returns either, depending on earlier calls. Instead,
// every offset that the zone has around that time is tried; no zone has ever kept one for less than
// an hour.
std::vector<sys_seconds> TimesShowing(TWallTime wall) {
    const sys_seconds inUtc(wall.time_since_epoch());
    std::set<sys_seconds> times;
    for (sys_seconds around = inUtc - cFarthest; around <= inUtc + cFarthest; around += 1h) {
        const sys_seconds time = inUtc - LocalOffsetAt(around);
        if (LocalWallTimeAt(time) == wall)
            times.insert(time);
    }
    return {times.begin(), times.end()};
}

}  // namespace vxsched
