#pragma once

#include <scheduler/Scheduler.h>

#include <string>

namespace vxsched {

// Loads the add-in, which sets the store mutex free, and returns its function that launches a program
// outside the schedule. It stays loaded: the process must end by _exit(), since exit() would unload it,
// which removes the store mutex for all processes. The caller holds the writer lock while it loads the
// library and calls the function, which takes the store mutex itself, without limit. For one thread.
// Throws CError (cFailed) if the add-in cannot be loaded or lacks the function.
decltype(&ExecuteTaskNow) LoadAddIn(const std::string& path);

}  // namespace vxsched
