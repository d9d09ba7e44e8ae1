#pragma once

#include <string>

#include "base/CDescriptor.h"

// Keeps a second host out of a directory: an advisory lock on files/vxschedd.lock, which also names
// the process that holds it, and one on the directory itself, should somebody remove that file. The
// kernel gives the locks back when the process ends, however it ends; the file stays.
class CDirectoryLock {
public:
    // Takes the lock in the working directory, which `directory` is for messages. Throws CHostError
    // (cSecondHost) when another host holds it, (cNoDirectory) when the file cannot be had.
    explicit CDirectoryLock(const std::string& directory);

private:
    CDescriptor locked;
    CDescriptor file;
};
