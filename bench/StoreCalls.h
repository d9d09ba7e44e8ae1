#pragma once

#include <cstddef>

// The system calls of an operation that do not transfer the file's content, as the library makes
// them, on semaphores of this process.

// Takes a semaphore and releases it at the end of the scope, with SEM_UNDO.
class CSemaphorePair {
public:
    CSemaphorePair();
    ~CSemaphorePair();
    CSemaphorePair(const CSemaphorePair&) = delete;
    CSemaphorePair& operator=(const CSemaphorePair&) = delete;
};

// Tests and signals an event; two semaphores.
bool TestSemaphore();
void SignalSemaphore();

// The size of the task file. These throw std::system_error.
std::size_t StatTaskFile();
int OpenForReading();
int OpenForWriting();
void CheckCall(bool succeeded, const char* call);
