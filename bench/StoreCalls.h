#pragma once

#include <cstddef>

// The system calls of an operation that are not about the file's content, as the library makes
// them: on semaphores of this process's own.

// Takes and gives back a semaphore for a scope, with the undo that a killed process needs.
class CSemaphorePair {
public:
    CSemaphorePair();
    ~CSemaphorePair();
    CSemaphorePair(const CSemaphorePair&) = delete;
    CSemaphorePair& operator=(const CSemaphorePair&) = delete;
};

// Whether an event is signalled, and its signalling; two semaphores.
bool TestSemaphore();
void SignalSemaphore();

// The size of the task file. These throw std::system_error.
std::size_t StatTaskFile();
int OpenForReading();
int OpenForWriting();
void CheckCall(bool succeeded, const char* call);
