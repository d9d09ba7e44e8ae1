#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace vxsched {

// The add-in's launches in a change process, which come here through the interposed functions. For
// the one thread of that process.

// Called after each launch with the process id, or with 0 and the error number if it failed. The
// store mutex is held.
using TLaunchListener = std::function<void(pid_t process, int error)>;

// Installs the handlers of the launches, before the add-in is loaded. From then on a launched
// program inherits the standard descriptors only, an empty signal mask and default dispositions, and
// the add-in does not pause after a launch.
void ListenToLaunches(TLaunchListener listener);

// Programs that are launched from now on get this name, up to a zero byte, as VXSCHED_TASK, and no
// VXSCHED_DUE: a launch outside the schedule has no due time.
void SetLaunchedTask(const std::string& name);

// Waits for the end of a launched program, without limit, and returns its wait status, also if the
// add-in has collected it already. Empty if the status cannot be read.
std::optional<int> WaitForEnd(pid_t process);

}  // namespace vxsched
