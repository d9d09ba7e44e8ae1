#include "host/service/CDueWake.h"

#include <algorithm>

static constexpr std::chrono::milliseconds cShortestInterval(100);

using std::chrono::sys_seconds;

// Due times may be any number of seconds; those that nanoseconds cannot express are centuries away.
void CDueWake::TableChanged(std::optional<sys_seconds> earliest) {
    static constexpr sys_seconds cLatest = std::chrono::floor<std::chrono::seconds>(TTime::max());
    due.reset();
    if (earliest)
        due = std::clamp(*earliest, sys_seconds(), cLatest);
    isTaken = false;
}

// The tick after a wake may have read the clock after it was set back, and found nothing due. The
// time of the last wake means nothing by the new clock.
void CDueWake::ClockSet() {
    isTaken = false;
    lastWake.reset();
}

std::optional<CDueWake::TTime> CDueWake::Next() const {
    if (!due || isTaken)
        return {};
    return lastWake ? std::max(*due, *lastWake + cShortestInterval) : *due;
}

bool CDueWake::Take(TTime now) {
    const std::optional<TTime> next = Next();
    if (!next || now < *next)
        return false;
    isTaken = true;
    lastWake = now;
    return true;
}
