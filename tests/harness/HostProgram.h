#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "Process.h"
#include "TableFile.h"

// vxschedd as a real process, and the clients that give it work.

class CHost : public CProgram {
public:
    // Starts it and waits until its worker rests behind the first tick.
    explicit CHost(const std::vector<std::string>& command = {HOST_PROGRAM, "--directory", "."});

    int Stop(int signal = SIGTERM);  // the result is that of Wait()

    std::size_t CountInOutput(const std::string& text) const;

    // A field of the process's status as the system shows it.
    std::string Status(const std::string& field) const;

    // Its children that have ended and were not collected.
    int CountZombies() const;
};

// The command line of a host in this directory with further options.
std::vector<std::string> HostWith(const std::vector<std::string>& options);

// Signals the stop event, so that the worker ticks at once.
void WakeWorker();

// Makes this the table of a host whose worker rests, and announces it; the worker reads it at its next
// tick as it is, past starts and all.
void ReplaceTable(const TRows& rows);

// A client process loads the library, creates a task that is due now and runs once, wakes the worker
// and ends without taking the mutex away.
void CreateDue(const std::string& name, const std::string& program, const std::string& parameter);

// Waits until the table is empty. The tick saves the table when all its starts are made. A client
// that came earlier would not be kept waiting: its load sets the mutex free, and the tick's save
// would go over its change.
void WaitForTheTicksEnd();

// Whether the log in that file holds this text by now.
bool LogHolds(const std::string& path, const std::string& text);

// The lines of a file, once it is there.
std::vector<std::string> Lines(const std::string& path);
