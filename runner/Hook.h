#pragma once

#include <chrono>
#include <string>

#include "runner/Execution.h"

// Has `/bin/sh` execute a command with `input` as its standard input, and waits for its end; what it
// writes is lost. After `limit`, or at SIGTERM to this process, which blocks that, it is killed with its
// process group. Returns what went wrong; empty if the command has exited with status 0.
std::string RunHook(const std::string& command, const TExecution& execution,
                    const std::string& input, std::chrono::milliseconds limit);
