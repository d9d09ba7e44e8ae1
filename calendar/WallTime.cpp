#include "calendar/WallTime.h"

#include <ctime>
#include <set>

namespace vxsched {

namespace {

using namespace std::chrono_literals;

// More than any zone's offset from UTC: TZ allows less than 25 hours.
constexpr std::chrono::hours cFarthest = 26h;

std::chrono::seconds LocalOffsetAt(TTime time) {
    const std::time_t value = time.time_since_epoch().count();
    struct tm fields {};
    // It fails for years that exceed tm_year, near the ends of the range of times.
    if (localtime_r(&value, &fields) == nullptr)
        return std::chrono::seconds(0);
    return std::chrono::seconds(fields.tm_gmtoff);
}

}  // namespace

TWallTime LocalWallTimeAt(TTime time) {
    return TWallTime(time.time_since_epoch() + LocalOffsetAt(time));
}

// Not by mktime(): of two possible times it returns either, depending on earlier calls. Instead,
// every offset that the zone has around that time is tried; no zone has ever kept one for less than
// an hour.
std::vector<TTime> TimesShowing(TWallTime wall) {
    const TTime inUtc(wall.time_since_epoch());
    std::set<TTime> times;
    for (TTime around = inUtc - cFarthest; around <= inUtc + cFarthest; around += 1h) {
        const TTime time = inUtc - LocalOffsetAt(around);
        if (LocalWallTimeAt(time) == wall)
            times.insert(time);
    }
    return {times.begin(), times.end()};
}

}  // namespace vxsched
