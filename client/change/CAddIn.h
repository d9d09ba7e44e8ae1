#pragma once

#include <scheduler/Scheduler.h>

#include <string>

namespace vxsched {

// The add-in's library and its exported functions that change the table. It stays loaded: the
// process must end by _exit(), since exit() would unload it, which removes the store mutex for all
// processes. The caller holds the writer lock while it loads the library and calls the functions,
// which take the store mutex themselves, without limit. For one thread.
class CAddIn {
public:
    // Loads the library, which sets the store mutex free. Throws CError (cFailed) if it cannot be
    // loaded or lacks a function.
    explicit CAddIn(const std::string& path);

    decltype(&CreateTask) create;
    decltype(&DestroyTask) destroy;
    decltype(&PauseTask) pause;
    decltype(&ResumeTask) resume;
    decltype(&SetTaskPeriod) setPeriod;
    decltype(&ExecuteTaskNow) executeNow;

private:
    template <typename Function>
    void Find(Function& function, const char* symbol);

    void* handle;
};

}  // namespace vxsched
