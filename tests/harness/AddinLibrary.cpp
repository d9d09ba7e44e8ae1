#include "AddinLibrary.h"

#include <dlfcn.h>
#include <scheduler/CSchedulerAddin.h>

#include <cstdio>
#include <cstdlib>

#include "Process.h"

CAddinLibrary::CAddinLibrary(const std::string& path)
    : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::abort();
    }
    const auto find = [this](auto& function, const char* symbol) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(Symbol(symbol));
    };
    find(CreateAddIn, "CreateAddIn");
    find(DestroyAddIn, "DestroyAddIn");
    find(SharedLibraryConstructor, "_Z24SharedLibraryConstructorv");
    find(SharedLibraryDestructor, "_Z23SharedLibraryDestructorv");
    find(IsScheduled, "_Z11IsScheduledPKc");
    find(IsTaskRunning, "IsTaskRunning");
    find(GetNextExecution, "_Z16GetNextExecutionPKcPl");
    find(GetLastExecuted, "_Z15GetLastExecutedPKcPl");
    find(GetTaskPeriod, "_Z13GetTaskPeriodPKcPj");
    find(CreateTask, "CreateTask");
    find(DestroyTask, "DestroyTask");
    find(PauseTask, "_Z9PauseTaskPKc");
    find(ResumeTask, "_Z10ResumeTaskPKc");
    find(SetTaskPeriod, "_Z13SetTaskPeriodPKcj");
    find(ExecuteTaskNow, "_Z14ExecuteTaskNowPKcb");
    find(taskList, "gTaskList");
}

CAddinLibrary::~CAddinLibrary() {
    Unload();
}

void CAddinLibrary::Unload() {
    if (handle != nullptr)
        dlclose(handle);
    handle = nullptr;
}

bool CAddinLibrary::IsMapped() {
    return ReadFile("/proc/self/maps").find("libVantrixScheduler.so") != std::string::npos;
}

void CAddinLibrary::Tick() const {
    static_cast<CSchedulerAddin&>(AddIn()).OnTick();
}

void* CAddinLibrary::Symbol(const char* name) const {
    void* const symbol = dlsym(handle, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "no such symbol: %s\n", name);
        std::abort();
    }
    return symbol;
}
