#pragma once

#include <stdexcept>
#include <string>

#include "host/ExitStatus.h"

// Why the host cannot run. what() is the message: what failed, on which input, why, what to do.
// `status` is the exit status that goes with it.
class CHostError : public std::runtime_error {
public:
    CHostError(TExitStatus exitStatus, const std::string& message)
        : std::runtime_error(message), status(exitStatus) {}

    const TExitStatus status;
};
