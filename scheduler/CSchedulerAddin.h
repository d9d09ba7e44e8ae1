#pragma once

#include "addin/CAddInInterface.h"

// The scheduler: the one add-in object of the library. It has no data of its own; what it owns are
// the process-wide objects of Scheduler.cpp.
class CSchedulerAddin : public CAddInInterface {
public:
    // Creates the shared objects, then, holding the store mutex, loads the task file, brings every
    // task's next due time up to date and writes the file back. It does not register itself as the
    // process's instance.
    CSchedulerAddin();

    // Deletes the shared objects, and the store mutex's semaphore with them, before the worker is
    // stopped: a host calls Stop() first.
    ~CSchedulerAddin() override;

    // Ticks, then waits up to 60 seconds on the stop event, until a stop is requested. Runs on the
    // worker. The tick is that of the registered instance, whichever object's worker this is.
    void Run() override;

    void Load() override;
    void Unload() override;
    bool isLoad() override;

    // One pass over the table, on the scheduling thread: takes in changes that others announced,
    // launches every due task and writes the table back if it launched any. Holds the store mutex
    // throughout.
    virtual void OnTick();
};
