#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "store/CMutexHealer.h"

// Watches the store mutex of the working directory while the host runs, and sets it free if it is
// wedged: held by nobody, or letting several in at once. It is begun when the mutex may have been
// wedged, checks once a second while the mutex is not free, and is then idle. Logs what it did, or
// once why it could not. For the guard's thread, which does not hold the store mutex; it takes the
// writer lock for a check, unless a client has it: a client that waits for the mutex heals it
// itself. The host holds the directory lock.
class CMutexWatch {
public:
    // Checks in a second. A process that has just loaded the add-in will have ended by then, or a
    // later check sees its end.
    void Begin();

    // The timeout of a poll(), -1 for none, such that it ends for the next check.
    int LimitTimeout(int timeout) const;

    // Blocks no longer than the check takes. Never throws: a check that fails for want of memory is
    // made again.
    void CheckIfDue();

private:
    using TClock = std::chrono::steady_clock;

    void TryToCheck();
    void Check();
    bool Heal();

    vxsched::CMutexHealer healer;
    std::optional<TClock::time_point> next;  // none: idle
    std::string previousReason;              // at the check before
    std::string lastReason;                  // has been logged; not again at every check
};
