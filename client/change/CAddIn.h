#pragma once

#include <scheduler/Scheduler.h>

#include <string>

namespace vxsched {

// The add-in, loaded for the rest of the process's life, with the exported functions that change
// the table. The process must end by _exit: a normal end would unload the library, and that takes
// the store mutex away from all others.
class CAddIn {
public:
    // Throws CError (cFailed) when it cannot be loaded or lacks a function.
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
