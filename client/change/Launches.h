#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace vxsched {

// The add-in's launches in a change process, which come here through the interposed functions. For
// the one thread of that process. The host of the working directory makes them, with the
// environment and the output of its other launches; without one this process makes them, by a
// runner, with the environment that docs/operating.md describes. Either way the history has them.

// What became of a launch.
struct TLaunch {
    pid_t process = 0;    // the launched program
    std::string run;      // the id of the run; empty if it has no runner
    std::string error;    // why nothing was launched, or why that is not known
    bool isKnown = true;  // else the host may have launched the program or not
    int hostError = 0;    // why no host was reached, and this process has launched it; 0: one was
};

// Called after each launch. The store mutex is held.
using TLaunchListener = std::function<void(const TLaunch& launch)>;

// Installs the handlers of the launches, before the add-in is loaded. From then on the add-in does
// not pause after a launch.
void ListenToLaunches(TLaunchListener listener);

// Programs that are launched from now on are those of this task. `output` is a stream socket that gets
// what they write, and stays the caller's; -1: none.
void SetLaunchedTask(const std::string& name, int output);

}  // namespace vxsched
