#pragma once

#include <string>

// Keeps a second host out of a directory: an advisory lock on files/vxschedd.lock, which also names
// the process that holds it. The kernel gives the lock back when the process ends, however it ends;
// the file stays.
class CDirectoryLock {
public:
    // Takes the lock in the working directory, which `directory` is for messages. Throws CHostError
    // (cSecondHost) when another host holds it, (cNoDirectory) when the file cannot be had.
    explicit CDirectoryLock(const std::string& directory);
    ~CDirectoryLock();

    CDirectoryLock(const CDirectoryLock&) = delete;
    CDirectoryLock& operator=(const CDirectoryLock&) = delete;

private:
    int descriptor;
};
