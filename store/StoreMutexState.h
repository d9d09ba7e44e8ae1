#pragma once

#include <sys/types.h>

#include <optional>

#include <vxsched/Table.h>

namespace vxsched {

// The state of the store mutex at one moment.
struct TMutexState {
    int value;          // 0: held; 1: free; more: so many holders at once, until the next load
    pid_t lastProcess;  // that took or released it; 0: none
    TTime lastUsed;     // when that was; the epoch: never
    int set;            // the identifier of the semaphore's set

    bool operator==(const TMutexState&) const = default;
};

// Reads the state without taking the mutex; does not block. Empty if there is no store. The values
// are read one after the other and may belong to different moments. Throws CError (cNoAccess,
// cFailed). Any thread may call it.
std::optional<TMutexState> InspectStoreMutex();

}  // namespace vxsched
