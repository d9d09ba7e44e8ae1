#pragma once

#include <stdexcept>
#include <string>

#include "host/ExitStatus.h"

// Why the host cannot run: a text for a person (what went wrong, with which input, what to do) and
// the exit status that goes with it.
class CHostError : public std::runtime_error {
public:
    CHostError(TExitStatus exitStatus, const std::string& text)
        : std::runtime_error(text), status(exitStatus) {}

    const TExitStatus status;
};
