#pragma once

#include <chrono>
#include <optional>

#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

// Takes the writer lock of the working directory, so that no client is in the middle of a change
// while the add-in is loaded, or destroyed together with the store mutex. The caller holds the
// directory lock, and not the store mutex. Waits at most `lockTimeout`. A client that holds the
// lock for longer is taken for hung: the log is warned, and nothing is returned. Throws CHostError
// (cNoDirectory) when the directory "files" cannot be opened.
std::optional<vxsched::CWriterLock> TakeWriterLock(std::chrono::milliseconds lockTimeout);

// Keeps clients out of the store while the add-in is loaded. The load sets the store mutex free
// even under a holder, so this takes the writer lock and then the store mutex: it waits for a
// change in progress instead of cutting it off.
class CStoreGate {
public:
    // Waits at most `lockTimeout` for each of the two locks and goes on without one that is held
    // for longer, which is logged. Throws CHostError: cNoDirectory as above, cNoStore when the
    // store mutex cannot be used.
    explicit CStoreGate(std::chrono::milliseconds lockTimeout);

    // The load of the add-in, which is about to be made, releases the mutex; releasing it again
    // would let two holders in at once. Returns its semaphore set, -1 if the mutex is not held.
    int LeaveMutexToLoad();

private:
    std::optional<vxsched::CWriterLock> writerLock;
    std::optional<vxsched::CStoreMutexLock> mutex;
};
