#include "host/service/CWorkerWatchdog.h"

CWorkerWatchdog::CWorkerWatchdog(std::chrono::microseconds longest, TTime now)
    : limit(longest), nextCheck(now + limit / 2) {}

CWorkerWatchdog::EVerdict CWorkerWatchdog::Look(TTime now, bool isIdle, std::size_t starts) {
    if (now < nextCheck)
        return cTooEarly;
    if (!isIdle && starts == launchesWhenAlive) {
        nextCheck = now + limit / 10;
        if (!firstMiss)
            firstMiss = now;
        return now - *firstMiss < limit / 4 ? cMissed : cStuck;
    }
    firstMiss.reset();
    launchesWhenAlive = starts;
    nextCheck = now + limit / 2;
    return cAlive;
}
