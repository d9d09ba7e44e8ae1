#pragma once

#include <chrono>
#include <optional>

#include "client/CStoreLock.h"
#include "host/CDescriptor.h"

// Keeps clients out of a store while the add-in is loaded, so that the load does not cut off a change
// of theirs: an exclusive flock on the directory "files", which clients take for a load of their own,
// and the store mutex, taken as one more waiter.
class CStoreGate {
public:
    // Of the working directory. Waits at most `patience` for each of the two; whoever holds on for
    // longer is taken for hung, and the log is warned that the load will go over it. Throws
    // CHostError: cNoStore when the mutex may not be used, cNoDirectory when "files" cannot be opened.
    explicit CStoreGate(std::chrono::milliseconds patience);

    // The add-in has been loaded, which set the mutex free: it is not released again.
    void Loaded();

private:
    CDescriptor files;
    std::optional<vxsched::CStoreLock> mutex;
};
