#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "base/CDescriptor.h"
#include "store/StoreMutexSet.h"

namespace vxsched {

// The writer lock of a directory, held for a scope: one process at a time loads the add-in or
// writes the table itself. The store mutex is not enough for that: it does not exist before the
// first load, and each load sets it free. It is an flock() on the directory "files"; the kernel
// releases it when the process ends. Lock order: after the directory lock, before the store mutex.
// Not recursive. A child made by fork() shares the lock until it ends or executes a program.
class CWriterLock {
public:
    // Waits at most `lockTimeout`, polling. Throws CError: cBusy on a timeout, cFailed if there is
    // no directory "files", cNoAccess if it may not be read.
    CWriterLock(const std::filesystem::path& directory, std::chrono::milliseconds lockTimeout);
    CWriterLock(const CWriterLock&) = delete;
    CWriterLock& operator=(const CWriterLock&) = delete;

    // Whom a set of semaphores that this process makes is to be given to: the owner of the store, that
    // of the directory "files", with its group; nobody if that is this process's user.
    std::optional<TSetOwner> OwnerForSets() const;

private:
    CDescriptor descriptor;
};

}  // namespace vxsched
