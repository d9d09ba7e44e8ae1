#pragma once

#include <string>

#include "addin/CAddInInterface.h"

// The loaded library of the add-in. Loading it creates the add-in; the destructor destroys the
// add-in, which removes the store mutex, and unloads the library. For the main thread.
class CAddInLibrary {
public:
    // Throws CHostError (cNoAddIn) when the library cannot be loaded or lacks an entry point.
    // Loading reads and writes the table of the working directory and sets the store mutex free;
    // see CStoreGate.
    explicit CAddInLibrary(const std::string& path);
    ~CAddInLibrary();

    CAddInLibrary(const CAddInLibrary&) = delete;
    CAddInLibrary& operator=(const CAddInLibrary&) = delete;

    CAddInInterface& AddIn() { return *addIn; }

private:
    void* handle;
    CAddInInterface* addIn = nullptr;
    decltype(&DestroyAddIn) destroy = nullptr;
};
