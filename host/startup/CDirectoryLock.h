#pragma once

#include <string>

#include "base/CDescriptor.h"

// The directory lock: keeps a second host out of a directory. It is an advisory lock on
// files/vxschedd.lock, which also holds the process id and the IPC namespace of the host, and one
// on the directory itself in case that file is removed. The kernel releases both when the process
// ends, however it ends; the file stays.
//
// It is the first of the locks: a host takes it before the writer lock and the store mutex.
class CDirectoryLock {
public:
    // Locks the working directory; `directory` is its name for messages. Waits a second for another
    // holder, and up to five if that host has been killed. Throws CHostError: cSecondHost when
    // another host holds the lock, cNoDirectory when the file cannot be opened.
    explicit CDirectoryLock(const std::string& directory);

private:
    CDescriptor locked;
    CDescriptor file;
};
