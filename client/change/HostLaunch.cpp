#include "client/change/HostLaunch.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "control/HostConnection.h"
#include "store/Layout.h"

namespace vxsched {

std::optional<THostAnswer> LaunchByHost(const TLaunchRequest& request, int output, int& error) {
    const std::string message = EncodeRequest(request);
    error = EMSGSIZE;
    if (message.size() > cLongestMessage)
        return {};
    const THostReply reply = AskHost(".", message, output);
    error = reply.error;
    if (reply.outcome == THostReply::cNotReached || reply.outcome == THostReply::cTurnedAway)
        return {};
    if (reply.outcome == THostReply::cUnanswered)
        return THostAnswer();
    const std::optional<TLaunchAnswer> answer = DecodeAnswer(reply.line);
    return THostAnswer{.isKnown = answer.has_value(), .answer = answer.value_or(TLaunchAnswer())};
}

std::string WhyNotByHost(int error) {
    switch (error) {
        case EMSGSIZE:
            return fmt::format(
                "a request takes at most {} bytes; shorten the task's name, program or parameter",
                cLongestMessage);
        case EACCES:
            return fmt::format(
                "cannot connect to {}: {}; its group is not the store's, so the host may not set "
                "that; make its user a member and restart it",
                cControlSocket, std::strerror(error));
        case ECONNRESET:
        case EPIPE:
            return "it has turned the request away: it was ending, or had no descriptors; see its "
                   "log";
        default:
            return fmt::format(
                "cannot connect to {}: {}; it is starting or ending, runs once, or could not make "
                "its socket; see its log, and vxschedd --check",
                cControlSocket, std::strerror(error));
    }
}

}  // namespace vxsched
