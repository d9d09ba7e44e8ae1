#include "host/recovery/CMutexWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include <vxsched/Error.h>
#include "host/CHostLog.h"
#include "store/CWriterLock.h"

using vxsched::CMutexHealer;

static constexpr std::chrono::seconds cInterval(1);

void CMutexWatch::Begin() {
    if (!next)
        next = TClock::now() + cInterval;
}

int CMutexWatch::LimitTimeout(int timeout) const {
    if (!next)
        return timeout;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - TClock::now());
    const int untilNext =
        static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    return timeout == -1 ? untilNext : std::min(timeout, untilNext);
}

void CMutexWatch::CheckIfDue() {
    if (!next || TClock::now() < *next)
        return;
    next.reset();
    try {
        TryToCheck();
    } catch (const std::exception&) {
        next = TClock::now() + cInterval;  // out of memory; may succeed later
    }
}

void CMutexWatch::TryToCheck() {
    try {
        Check();
    } catch (const vxsched::CError& error) {
        if (error.Code() == vxsched::EError::cBusy)
            next = TClock::now() + cInterval;  // a client holds the writer lock
        else if (lastReason != error.what())
            LogWarning(fmt::format("cannot watch the store mutex: {}", lastReason = error.what()));
    }
}

void CMutexWatch::Check() {
    switch (healer.Observe()) {
        case CMutexHealer::cFree:
            lastReason.clear();
            return;
        case CMutexHealer::cInUse:
            break;
        case CMutexHealer::cUnchanged:
            if (!Heal())
                return;
    }
    next = TClock::now() + cInterval;
}

// True if another check is of use.
bool CMutexWatch::Heal() {
    // The host holds the directory lock; the store mutex comes after this one.
    const vxsched::CWriterLock writerLock(".", std::chrono::milliseconds(0));
    const CMutexHealer::TResult result = healer.Heal(writerLock);
    if (result.isHealed) {
        LogWarning(vxsched::DescribeHealed(result));
        return false;
    }
    if (!result.holder || result.isUsual)
        return true;
    const std::string reason = vxsched::Describe(*result.holder);
    // A process that just ran at one check is not worth a line. A value above 1 keeps nobody
    // waiting; it is not checked for ever if only the superuser could find out who holds it.
    const bool isLasting = reason == std::exchange(previousReason, reason);
    if (result.value == 0 && isLasting && reason != lastReason)
        LogWarning(fmt::format("the store mutex is not released: {}", lastReason = reason));
    return result.value == 0 || result.holder->reason == vxsched::TPossibleHolder::cMayHold;
}
