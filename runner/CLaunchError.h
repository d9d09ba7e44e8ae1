#pragma once

#include <stdexcept>
#include <string>

// Why a job is not launched: an error number for its launcher, and what failed, on which input.
class CLaunchError : public std::runtime_error {
public:
    CLaunchError(int number, const std::string& message)
        : std::runtime_error(message), error(number) {}

    int Error() const { return error; }

private:
    int error;
};
