#include "host/service/CWorkerWatchdog.h"

CWorkerWatch::CWorkerWatch(std::chrono::microseconds longest, TTime now)
    : limit(longest), nextLook(now + limit / 2) {}

CWorkerWatch::EVerdict CWorkerWatch::Look(TTime now, bool atRest, std::size_t starts) {
    if (now < nextLook)
        return cTooEarly;
    if (!atRest && starts == startsAtLastSign) {
        nextLook = now + limit / 10;
        if (!firstMiss)
            firstMiss = now;
        return now - *firstMiss < limit / 4 ? cNoSign : cStuck;
    }
    firstMiss.reset();
    startsAtLastSign = starts;
    nextLook = now + limit / 2;
    return cAlive;
}
