#pragma once

#include <optional>

#include "control/Messages.h"

namespace vxsched {

// What the host of the working directory has answered.
struct THostAnswer {
    bool isKnown = false;  // else it may have launched the program or not
    TLaunchAnswer answer;
};

// Has the host launch a program, by its control socket. Blocks until it has answered, for five
// seconds at most: the caller holds the store mutex. Empty if there is no host that takes such
// requests; then nothing was launched.
std::optional<THostAnswer> LaunchByHost(const TLaunchRequest& request);

}  // namespace vxsched
