#pragma once

#include <list>
#include <string>

#include "addin/CAddInInterface.h"

class TTask;

// The loaded library of the add-in. Loading it creates the add-in; the destructor destroys the
// add-in, which removes the store mutex, and unloads the library. For the main thread.
class CAddInLibrary {
public:
    // Throws CHostError (cNoAddIn) when the library cannot be loaded or lacks a symbol.
    // Loading reads and writes the table of the working directory and sets the store mutex free;
    // see CStoreGate.
    explicit CAddInLibrary(const std::string& path);
    ~CAddInLibrary();

    CAddInLibrary(const CAddInLibrary&) = delete;
    CAddInLibrary& operator=(const CAddInLibrary&) = delete;

    CAddInInterface& AddIn() { return *addIn; }

    // Where the library keeps the pointer to its list of tasks, which is null while there is no
    // add-in. The list is the worker's: only a launch, which is part of its tick, may read it.
    const std::list<TTask*>* const* Tasks() const { return tasks; }

private:
    void* handle;
    CAddInInterface* addIn = nullptr;
    decltype(&DestroyAddIn) destroy = nullptr;
    std::list<TTask*>* const* tasks = nullptr;
};
