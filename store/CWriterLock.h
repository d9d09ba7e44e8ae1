#pragma once

#include <chrono>
#include <filesystem>

namespace vxsched {

// A client's turn to load the library, or to write the table itself: one process after the other in
// a directory. The store mutex alone does not see to that: there is none before the first load, and
// each load sets it free. It is an advisory lock on the folder "files", which the kernel gives back
// when the process ends, however it ends.
class CWriterLock {
public:
    // Waits at most `patience`. Throws CError: cBusy when that has passed, cFailed or
    // cNoAccess when there is no such folder or it may not be read.
    CWriterLock(const std::filesystem::path& directory, std::chrono::milliseconds lockTimeout);
    ~CWriterLock();
    CWriterLock(const CWriterLock&) = delete;
    CWriterLock& operator=(const CWriterLock&) = delete;

private:
    int descriptor;
};

}  // namespace vxsched
