#pragma once

#include "base/CDescriptor.h"
#include "host/programs/CLaunchedPrograms.h"

// Notices the death of a runner that the host did not launch itself, but the one before, and records
// its run. A runner that ends as it should costs nothing. For the main thread.
class CRunnerWatch {
public:
    // Without the system's room for a watch, such runs are recorded by the next host.
    explicit CRunnerWatch(CLaunchedPrograms& launchedPrograms);

    // Readable when Record() should be called.
    int Descriptor() const { return events.Get(); }

    // Blocks for disk access only.
    void Record() const;

private:
    CLaunchedPrograms& programs;
    const CDescriptor events;
};
