#pragma once

#include <string>

#include "addin/CAddInInterface.h"

// The add-in's library, loaded: its load builds the add-in, the destructor destroys the add-in and
// unloads the library. For the host's main thread.
class CAddInLibrary {
public:
    // Loads the library and obtains its add-in. Throws CHostError (cNoAddIn) when that cannot be
    // done.
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
