#pragma once

#include <sys/types.h>

#include <optional>

#include <vxsched/Table.h>

namespace vxsched {

// The store mutex as it is at this moment.
struct TMutexState {
    int value;          // 0 held, 1 free; more: as many are let in at once until the next load
    pid_t lastProcess;  // that took it or gave it back; 0 for none
    TTime lastUsed;     // when that was; the beginning of 1970: never
};

// Looks without taking it. None where there is no store. Throws CError (cNoAccess, cFailed).
std::optional<TMutexState> InspectStoreMutex();

}  // namespace vxsched
