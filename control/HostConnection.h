#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// The client's side of the control socket (docs/control.md). Any thread may call these functions.

namespace vxsched {

// What came of a request to the host.
struct THostReply {
    enum EOutcome {
        cNotReached,  // no host listens
        cTurnedAway,  // it has closed the connection, or was killed, before it had read the request
        cUnanswered,  // whether it has done what was requested is not known
        cAnswered
    };

    EOutcome outcome = cAnswered;
    int error = 0;          // the error number of the others
    std::string line = {};  // of the answer, without its line break
};

// Sends a request, a line with its line break, to the host of a directory, with the descriptor `passed`
// unless that is -1, and waits for the answer. Connecting, each send that blocks, and the answer may
// each take eleven seconds, after which the error is EAGAIN or ETIMEDOUT; EPROTO if the host has closed
// the connection without an answer.
THostReply AskHost(const std::filesystem::path& directory, std::string_view request,
                   int passed = -1);

}  // namespace vxsched
