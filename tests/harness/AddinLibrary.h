#pragma once

#include <addin/CAddInInterface.h>

#include <list>
#include <string>

class TTask;

// One load of the built add-in, with its exported functions found by their symbols. Loading builds
// the add-in in the working directory; unloading destroys it.
class CAddinLibrary {
public:
    explicit CAddinLibrary(const std::string& path = ADDIN_LIBRARY);
    ~CAddinLibrary();
    CAddinLibrary(const CAddinLibrary&) = delete;
    CAddinLibrary& operator=(const CAddinLibrary&) = delete;

    void Unload();  // before the destructor does
    static bool IsMapped();

    // The add-in object with its tick callable.
    CAddInInterface& AddIn() const { return *CreateAddIn(); }
    void Tick() const;
    std::list<TTask*>* TaskList() const { return *taskList; }

    CAddInInterface* (*CreateAddIn)() = nullptr;
    void (*DestroyAddIn)(CAddInInterface*) = nullptr;
    void (*SharedLibraryConstructor)() = nullptr;
    void (*SharedLibraryDestructor)() = nullptr;
    bool (*IsScheduled)(const char*) = nullptr;
    bool (*IsTaskRunning)(const char*) = nullptr;
    void (*GetNextExecution)(const char*, long*) = nullptr;
    void (*GetLastExecuted)(const char*, long*) = nullptr;
    bool (*GetTaskPeriod)(const char*, unsigned int*) = nullptr;
    void (*CreateTask)(const char*, const long*, unsigned int, const char*, const char*) = nullptr;
    void (*DestroyTask)(const char*) = nullptr;
    void (*PauseTask)(const char*) = nullptr;
    void (*ResumeTask)(const char*) = nullptr;
    bool (*SetTaskPeriod)(const char*, unsigned int) = nullptr;
    void (*ExecuteTaskNow)(const char*, bool) = nullptr;

    // Convenience for tests: the due time by value.
    void Create(const char* name, long due, unsigned int period,
                const char* program = "/bin/program", const char* parameters = "") const {
        CreateTask(name, &due, period, program, parameters);
    }
    void* Symbol(const char* name) const;

private:
    void* handle;
    std::list<TTask*>** taskList = nullptr;
};
