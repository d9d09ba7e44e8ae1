#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "runner/Execution.h"

// What a new process does before it executes its program, in this order.
enum class EStep : int { cProcess, cGroups, cGroup, cUser, cDirectory, cProgram };

// How far an execution has come; `error` is an error number, 0: the program is executed.
struct TExecuted {
    EStep step = EStep::cProgram;
    int error = 0;
};

// What failed, on which input, and why. `program` is that of the execution.
std::string Describe(const TExecuted& executed, const TExecution& execution,
                     const std::string& program);

// Whether the system has no room for one more process or descriptor.
bool IsForWantOfRoom(int error);

// For calls that do not modify the strings; a null pointer is the last one.
std::vector<char*> PointersTo(const std::vector<std::string>& strings);

// Has this process take over the identity, the umask and the directory of an execution. Safe in a child
// of any process. Returns the step that failed, if one did.
TExecuted Enter(const TExecution& execution);

// Launches a program as a child of this process, which has one thread, as posix_spawn() does: with clean
// signals, as the leader of a session, with `output` for what it writes, and no descriptor besides.
TExecuted Execute(const TExecution& execution, const char* program, char* const arguments[],
                  int output, pid_t* process);
