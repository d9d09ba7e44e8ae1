#pragma once

#include <chrono>
#include <optional>

#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

// A client's turn to change the table of the working directory, taken so that no client is in the
// middle of a change: when the add-in is loaded, and when it is destroyed, which takes the store mutex
// away. Waits at most `patience`; a client that holds on for longer is taken for hung, and the log is
// warned that it is gone over (none is returned). Throws CHostError (cNoDirectory) when the folder
// "files" cannot be opened.
std::optional<vxsched::CWriterLock> TakeWriterLock(std::chrono::milliseconds lockTimeout);

// Keeps clients out of a store while the add-in is loaded, so that the load does not cut off a change
// of theirs: the turn, and the store mutex, taken as one more waiter.
class CStoreGate {
public:
    // Waits at most `patience` for each of the two, like TakeWriterLock(). Throws CHostError also when the
    // mutex may not be used (cNoStore).
    explicit CStoreGate(std::chrono::milliseconds lockTimeout);

    // The add-in has been loaded, which set the mutex free: it is not released again.
    void Loaded();

private:
    std::optional<vxsched::CWriterLock> turn;
    std::optional<vxsched::CStoreMutexLock> mutex;
};
