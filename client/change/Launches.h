#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>

namespace vxsched {

// The launches of the add-in in a change process.

// From now on a launched program gets no descriptor but the standard ones, an empty signal mask and
// default dispositions; `listener` is called for each: the process, or 0 with the errno of why there
// is none.
using TLaunchListener = std::function<void(pid_t process, int error)>;
void ListenToLaunches(TLaunchListener listener);

// Waits for the end of a launched program, without limit; its wait status. The add-in may have
// collected it already. None when somebody else has.
std::optional<int> WaitForEnd(pid_t process);

}  // namespace vxsched
