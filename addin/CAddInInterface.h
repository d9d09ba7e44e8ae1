#pragma once

#include <string>

#include "addin/CThread.h"

// The interface of an add-in to its host. The host loads the library, which builds the add-in at
// once; obtains it with CreateAddIn(); calls Start(); and, to shut down, Stop(), Unload(),
// DestroyAddIn() and dlclose, in this order. All of these are for the host's one loading thread;
// none takes a lock of its own.
class CAddInInterface : public CThread {
public:
    explicit CAddInInterface(const char* addInName);

    // As CThread::Stop(): asks the worker to end and waits for it without limit, the work in
    // progress included. To be called once Start() was.
    void Stop() override;

    // The scheduler's Load() only writes the line "Failed to start up thread in Scheduler AddIn."
    // to the log. It starts nothing; a host need not call it.
    virtual void Load() = 0;

    // The scheduler's Unload() empties this process's list of tasks, holding the store mutex. The
    // task file stays as it is, and the next call that reads it brings the tasks back.
    virtual void Unload() = 0;

    // True while the library has its one add-in object, whichever object is asked.
    virtual bool isLoad() = 0;

    std::string name;  // for the host; nothing in the library reads it
};

extern "C" {

// The library's one add-in object, made anew if it was destroyed. The library keeps owning it until
// DestroyAddIn. An exception of its construction passes to the caller.
CAddInInterface* CreateAddIn();

// Destroys the add-in. A pointer to any other add-in object is deleted as well, and the registered
// one then stays; a null pointer does nothing. No exported task function may be called until
// CreateAddIn is.
void DestroyAddIn(CAddInInterface* addIn);

}  // extern "C"
