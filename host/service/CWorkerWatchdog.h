#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

// Decides from outside the add-in whether its worker is alive.
//
// A healthy worker is nearly always idle, waiting for the stop event. During a tick it launches
// programs one after the other, each with a pause of some seconds at most. So the worker is alive
// if it is idle at the moment of a check, or if a program was launched since the last check that
// found it alive. A worker that is in an endless catch-up, waits for a store mutex that is never
// released, or has ended is neither.
//
// Limitation: whose worker waits for the event is not known. Another scheduling process in the IPC
// namespace looks like an idle worker.
//
// Has no clock of its own; each call passes the time. For one thread.
class CWorkerWatchdog {
public:
    using TTime = std::chrono::steady_clock::time_point;

    // `limit` is how long the worker may seem dead. Checks are due every half of it, and every
    // tenth of it after one that found the worker neither idle nor launching: a single such check
    // may just have met a tick.
    CWorkerWatchdog(std::chrono::microseconds limit, TTime now);

    // When the next check is due.
    TTime NextCheck() const { return nextCheck; }

    enum EVerdict {
        cTooEarly,  // no check is due
        cAlive,
        cMissed,  // neither idle nor launching at this check
        cStuck,   // the same at all checks for a quarter of the limit
    };

    // Makes a check if one is due. `isIdle`: a process waits for the stop event; `launches`: the
    // number of launches so far.
    EVerdict Check(TTime now, bool isIdle, std::size_t launches);

private:
    const std::chrono::microseconds limit;
    TTime nextCheck;
    std::optional<TTime> firstMiss;  // since the worker was last alive
    std::size_t launchesWhenAlive = 0;
};
