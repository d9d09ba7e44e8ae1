#pragma once

#include <string>
#include <utility>
#include <vector>

// vxsched as a real process.

struct TToolRun {
    int status = 0;  // the exit status, or 1000 plus the number of the signal that killed it
    std::string output;
    std::string error;  // on a terminal, empty: all is output
};

using TEnvironment = std::vector<std::pair<std::string, std::string>>;

// Runs it with its output and its errors in files of the test's directory, to its end.
TToolRun RunTool(const std::vector<std::string>& arguments, const TEnvironment& environment = {},
                 const std::string& input = "");

// The same on a terminal of that many columns; line ends are as a program writes them.
TToolRun RunToolOnTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                           const TEnvironment& environment = {});

// Has what is started stand at that time by its own clock, which a change's process does not see.
TEnvironment AtTime(long seconds);

// Has a host start programs without the pause that a start takes.
TEnvironment WithoutPauses();
