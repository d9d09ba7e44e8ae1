#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>

class CEvent;
class CMutex;
class CSchedulerAddin;
class TTask;

// One load of SchedulerInside: the scheduler with some of its file-local functions callable.
class CInsideLibrary {
public:
    CInsideLibrary() : handle(dlopen(INSIDE_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        if (handle == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            std::abort();
        }
        Find(LoadTasks, "InsideLoadTasks");
        Find(SaveTasks, "InsideSaveTasks");
        Find(ClearTasks, "InsideClearTasks");
        Find(RemoveTask, "InsideRemoveTask");
        Find(FindTask, "InsideFindTask");
        Find(SetNextTime, "InsideSetNextTime");
        Find(Execute, "InsideExecute");
        Find(TaskList, "InsideTaskList");
        Find(Mutex, "InsideMutex");
        Find(TaskChangedEvent, "InsideTaskChangedEvent");
        Find(SchedulerThread, "InsideSchedulerThread");
        Find(Instance, "InsideInstance");
        Find(NewAddin, "InsideNewAddin");
        Find(SecondsOfPeriod, "InsideSecondsOfPeriod");
        Find(CreateAddIn, "CreateAddIn");
        Find(DestroyAddIn, "DestroyAddIn");
        Find(CreateTask, "CreateTask");
    }
    ~CInsideLibrary() { dlclose(handle); }
    CInsideLibrary(const CInsideLibrary&) = delete;
    CInsideLibrary& operator=(const CInsideLibrary&) = delete;

    bool (*LoadTasks)() = nullptr;
    void (*SaveTasks)() = nullptr;
    void (*ClearTasks)() = nullptr;
    void (*RemoveTask)(const char*) = nullptr;
    TTask* (*FindTask)(const char*) = nullptr;
    void (*SetNextTime)(TTask*, bool) = nullptr;
    void (*Execute)(TTask*&) = nullptr;
    std::list<TTask*>* (*TaskList)() = nullptr;
    CMutex* (*Mutex)() = nullptr;
    CEvent* (*TaskChangedEvent)() = nullptr;
    pthread_t (*SchedulerThread)() = nullptr;
    CSchedulerAddin* (*Instance)() = nullptr;
    CSchedulerAddin* (*NewAddin)() = nullptr;
    std::time_t (*SecondsOfPeriod)(std::uint32_t) = nullptr;
    CSchedulerAddin* (*CreateAddIn)() = nullptr;
    void (*DestroyAddIn)(CSchedulerAddin*) = nullptr;
    void (*CreateTask)(const char*, const long*, unsigned int, const char*, const char*) = nullptr;

private:
    template <typename Function>
    void Find(Function& function, const char* symbol) {
        function = reinterpret_cast<Function>(dlsym(handle, symbol));
        if (function == nullptr) {
            std::fprintf(stderr, "no such symbol: %s\n", symbol);
            std::abort();
        }
    }

    void* handle;
};
