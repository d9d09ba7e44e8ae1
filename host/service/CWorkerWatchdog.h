#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

// Judges from outside the add-in whether its worker is alive.
//
// A worker that is well waits for the stop event nearly always; while a tick starts programs, it
// starts one after the other, some two seconds each. So a sign of life is either of the two: somebody
// waits for the stop event at the moment of a look, or a program was started since the last sign. A
// worker that hangs in a catch-up without end, waits for a store mutex that nobody gives back, or has
// ended gives neither. What this cannot see: the waiter is not known to be this process's, so another
// scheduling process in the IPC namespace looks like a worker at rest.
//
// Without a clock of its own: every call is told the time. For one thread.
class CWorkerWatchdog {
public:
    using TTime = std::chrono::steady_clock::time_point;

    // `limit` is how long the worker may go without a sign of life; looks are made at half of it, and
    // while there is none at a tenth. One look that finds none means little: it may have met a tick.
    CWorkerWatchdog(std::chrono::microseconds limit, TTime now);

    // When the next look is due.
    TTime NextCheck() const { return nextCheck; }

    enum EVerdict {
        cTooEarly,
        cAlive,
        cMissed,  // at this look
        cStuck,   // at this one and at all since a quarter of the limit
    };

    // One look, if one is due. `atRest`: somebody waits for the stop event; `starts`: how many
    // programs were started so far.
    EVerdict Look(TTime now, bool isIdle, std::size_t starts);

private:
    const std::chrono::microseconds limit;
    TTime nextCheck;
    std::optional<TTime> firstMiss;  // since the last sign
    std::size_t launchesWhenAlive = 0;
};
