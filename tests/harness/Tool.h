#pragma once

#include <string>
#include <utility>
#include <vector>

// vxsched as a real process.

struct TToolRun {
    int status = 0;  // the exit status, or 1000 plus the number of the signal that killed it
    std::string output;
    std::string error;  // empty on a terminal: all goes to `output`
};

using TEnvironment = std::vector<std::pair<std::string, std::string>>;

// Runs it with its output and its errors in files of the test's directory, to its end.
TToolRun RunTool(const std::vector<std::string>& arguments, const TEnvironment& environment = {},
                 const std::string& input = "");

// The same on a terminal of that many columns, which does not translate line ends.
TToolRun RunToolOnTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                           const TEnvironment& environment = {});

// The environment that freezes the clock of a program at that time. The process that makes a change
// does not inherit it.
TEnvironment AtTime(long seconds);

// The environment in which the variables of tests/preload/interposed-system.cpp have an effect.
TEnvironment WithInterposedSystem();
