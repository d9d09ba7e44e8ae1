#include "host/startup/CStoreGate.h"

#include <fmt/format.h>

#include <vxsched/Error.h>
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "store/StoreMutexState.h"

std::optional<vxsched::CWriterLock> TakeWriterLock(std::chrono::milliseconds lockTimeout) {
    try {
        return std::optional<vxsched::CWriterLock>(std::in_place, ".", lockTimeout);
    } catch (const vxsched::CError& error) {
        if (error.Code() != vxsched::EError::cBusy)
            throw CHostError(cNoDirectory, error.what());
        LogWarning(fmt::format(
            "a client has held the writer lock for more than {} ms and is taken for hung. "
            "Continuing without the lock. Find out what the client was doing.",
            lockTimeout.count()));
        return std::nullopt;
    }
}

CStoreGate::CStoreGate(std::chrono::milliseconds lockTimeout)
    : writerLock(TakeWriterLock(lockTimeout)) {
    try {
        // The load makes the set; a host that cannot load leaves none.
        if (writerLock && vxsched::InspectStoreMutex())
            mutex.emplace(lockTimeout, *writerLock);
        else
            mutex.emplace(lockTimeout);
    } catch (const vxsched::CError& error) {
        if (error.Code() != vxsched::EError::cBusy)
            throw CHostError(cNoStore, error.what());
        LogWarning(fmt::format("continuing without the store mutex: {}", error.what()));
    }
}

int CStoreGate::LeaveMutexToLoad() {
    return mutex ? mutex->Forget() : -1;
}
