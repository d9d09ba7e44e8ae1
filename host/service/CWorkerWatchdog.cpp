#include "host/service/CWorkerWatchdog.h"

CWorkerWatchdog::CWorkerWatchdog(std::chrono::microseconds longest, TTime now)
    : limit(longest), nextCheck(now + limit / 2) {}

CWorkerWatchdog::EVerdict CWorkerWatchdog::Check(TTime now, bool isIdle, std::size_t launches) {
    if (now < nextCheck)
        return cTooEarly;
    if (!isIdle && launches == launchesWhenAlive) {
        nextCheck = now + limit / 10;
        if (!firstMiss)
            firstMiss = now;
        return now - *firstMiss < limit / 4 ? cMissed : cStuck;
    }
    firstMiss.reset();
    launchesWhenAlive = launches;
    nextCheck = now + limit / 2;
    return cAlive;
}
