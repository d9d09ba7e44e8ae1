#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "Process.h"
#include "TableFile.h"

// vxschedd as a real process, and clients that create tasks for it.

class CHost : public CProgram {
public:
    // Starts it and waits until its worker is idle after the first tick.
    explicit CHost(const std::vector<std::string>& command = {HOST_PROGRAM, "--directory", "."});

    int Stop(int signal = SIGTERM);  // the result is that of Wait()

    std::size_t CountInOutput(const std::string& message) const;

    // A field of /proc/PID/status.
    std::string Status(const std::string& field) const;

    // Its zombie children.
    int CountZombies() const;
};

// The command line of a host in this directory with further options.
std::vector<std::string> HostWith(const std::vector<std::string>& options);

// The command line of a host in this directory that pauses for two seconds after each launch, so that
// a test can act in the middle of a tick.
std::vector<std::string> HostThatPauses();

// Signals the stop event, so that the worker ticks at once.
void WakeWorker();

// Replaces the table of a host whose worker is idle and signals the change; the worker reads it at
// its next tick unchanged, past due times included.
void ReplaceTable(const TRows& rows);

// Runs a client process that loads the library, creates a task that is due now and runs once, wakes
// the worker and exits without removing the store mutex.
void CreateDue(const std::string& name, const std::string& program, const std::string& parameter);

// Waits until the table is empty. The tick saves the table after its last launch. A client that
// comes earlier does not wait: its load sets the mutex free, and the tick's save overwrites its
// change.
void WaitForTheTicksEnd();

// Whether the log file holds this message by now.
bool LogHolds(const std::string& path, const std::string& message);

// The lines of a file, once it is there.
std::vector<std::string> Lines(const std::string& path);
