#include "calendar/WallTime.h"

#include <ctime>
#include <set>

namespace vxsched {

namespace {

using namespace std::chrono_literals;

// Farther than a zone can be from UTC; TZ takes a day and an hour at most.
constexpr std::chrono::hours cFarthest = 26h;

std::chrono::seconds LocalOffsetAt(TTime time) {
    const std::time_t value = time.time_since_epoch().count();
    struct tm fields {};
    // It fails for years that do not fit its fields, near the ends of the range of times.
    if (localtime_r(&value, &fields) == nullptr)
        return std::chrono::seconds(0);
    return std::chrono::seconds(fields.tm_gmtoff);
}

}  // namespace

TWallTime LocalWallTimeAt(TTime time) {
    return TWallTime(time.time_since_epoch() + LocalOffsetAt(time));
}

// mktime picks either of two times, depending on what it was asked before. So every offset that the
// zone has around is tried; none has ever lasted for less than an hour.
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
