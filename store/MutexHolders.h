#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "store/StoreMutexState.h"

namespace vxsched {

// Who may hold the store mutex. The system does not show who holds a semaphore, but a thread that
// is blocked in a wait for it holds nothing. If every thread that can have taken the mutex is seen
// to hold nothing, nobody holds it.

// A process that may hold the mutex.
struct TPossibleHolder {
    enum EReason {
        cMayHold,    // it uses the mutex and is not seen to hold nothing
        cStopped,    // the same, and it will do nothing until it is continued
        cUnreadable  // this user may not inspect it
    };

    pid_t process;        // 0: it is not visible here
    std::string program;  // its short name
    EReason reason;

    bool operator==(const TPossibleHolder&) const = default;
};

// Finds a process that may hold the mutex, whose state was `state` before the call; empty if nobody
// does. Examines each process of this IPC namespace that has loaded the add-in or the client
// library, is one of this project's programs, or was the last to operate on the mutex, but not the
// calling thread. One that may hold it is preferred to one that cannot be inspected.
//
// The caller holds the writer lock and not the mutex. Without the writer lock the answer may be
// wrong for programs that are making a change. Reads /proc; blocks no longer than that takes.
std::optional<TPossibleHolder> FindPossibleHolder(const TMutexState& state);

// As in "process 42 (backup) may hold it", with what to do.
std::string Describe(const TPossibleHolder& holder);

}  // namespace vxsched
