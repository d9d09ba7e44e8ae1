#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace vxsched {

// The change process's own time() and posix_spawn(), exported by the program, so that the add-in's
// calls of them come here.

// While it lives, the clock stands at a time before all others: nothing is due, so no start is
// moved on and no task removed, however late the system comes to it. For one thread.
class CStandingClock {
public:
    CStandingClock();
    ~CStandingClock();
    CStandingClock(const CStandingClock&) = delete;
    CStandingClock& operator=(const CStandingClock&) = delete;
};

// Called for every start: the process, or 0 with the errno of why there is none.
using TStartListener = std::function<void(pid_t process, int error)>;
void SetStartListener(TStartListener listener);

// Waits for the end of a program that the add-in started; its wait status. It may have been
// collected by the add-in already. None when somebody else has.
std::optional<int> WaitForEnd(pid_t process);

}  // namespace vxsched
