#pragma once

#include "base/CDescriptor.h"

// Removes the kept outputs of tasks that are gone, once they are old (RemoveOutputsOfOthers()): when
// the host has started, and once a day. For the main thread.
class COutputCleaner {
public:
    COutputCleaner();

    // Readable when Clean() should be called.
    int Descriptor() const { return timer.Get(); }

    // Takes the store mutex to read the table; waits for it briefly, and tries again in a minute if it
    // cannot be had or the table cannot be read. Otherwise blocks for disk access only.
    void Clean() const;

private:
    const CDescriptor timer;
};
