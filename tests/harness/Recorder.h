#pragma once

#include <string>

#include "HostProgram.h"
#include "Process.h"

// The program that records its arguments, signals and descriptors in the file that its parameter
// names.
inline const std::string cRecorder = PROGRAMS "/record-launch";

// The line about the parameter, once the program has written that far.
inline std::string RecordedArgument(const std::string& path) {
    WaitUntil([&] { return Lines(path).size() > 2; });
    return Lines(path)[2];
}
