#include "host/startup/CStoreGate.h"

#include <fmt/format.h>

#include <vxsched/Error.h>
#include "host/CHostError.h"
#include "host/CHostLog.h"

std::optional<vxsched::CLoadTurn> TakeTurn(std::chrono::milliseconds patience) {
    try {
        return std::optional<vxsched::CLoadTurn>(std::in_place, ".", patience);
    } catch (const vxsched::CClientError& error) {
        if (error.Code() != vxsched::EError::cBusy)
            throw CHostError(cNoDirectory, error.what());
        LogWarning(
            fmt::format("a client has kept the lock on the directory \"files\" for {} ms; "
                        "going on without it",
                        patience.count()));
        return std::nullopt;
    }
}

CStoreGate::CStoreGate(std::chrono::milliseconds patience) : turn(TakeTurn(patience)) {
    try {
        mutex.emplace(patience);
    } catch (const vxsched::CClientError& error) {
        if (error.Code() != vxsched::EError::cBusy)
            throw CHostError(cNoStore, error.what());
        LogWarning(fmt::format("going on without the store mutex: {}", error.what()));
    }
}

void CStoreGate::Loaded() {
    if (mutex)
        mutex->Forget();
}
