#pragma once

#include <optional>
#include <string>

#include "control/Messages.h"

namespace vxsched {

// What the host of the working directory has answered.
struct THostAnswer {
    bool isKnown = false;  // else it may have launched the program or not
    TLaunchAnswer answer;
};

// Has the host launch a program, by its control socket. Blocks as AskHost() does: the caller
// holds the store mutex. The host passes `output` on (TChange::output).
// Empty if no host is reached, because of `error`, an error number; then nothing was launched.
std::optional<THostAnswer> LaunchByHost(const TLaunchRequest& request, int output, int& error);

// Why a host that runs was not reached, and what to do, for a message. `error` is that of
// LaunchByHost().
std::string WhyNotByHost(int error);

}  // namespace vxsched
