#include "client/change/HostLaunch.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "base/CDeadline.h"
#include "base/CDescriptor.h"
#include "base/PassDescriptor.h"
#include "store/Layout.h"

namespace vxsched {

namespace {

constexpr std::chrono::seconds cLimit(5);

// Closed if nobody listens, with the reason in errno. A blocked connect() or send() ends after the limit.
CDescriptor Connect() {
    CDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{.tv_sec = cLimit.count(), .tv_usec = 0};
    setsockopt(made.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    static_assert(sizeof cControlSocket <= sizeof address.sun_path);
    std::memcpy(address.sun_path, cControlSocket, sizeof cControlSocket);
    if (connect(made.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        return CDescriptor();
    return made;
}

// Reads up to a line break. Returns an error number: 0, ETIMEDOUT, EPROTO if the host has closed
// the connection, or that of recv().
int ReadLine(const CDescriptor& socket, std::string& line) {
    const CDeadline deadline(cLimit);
    for (;;) {
        pollfd input{.fd = socket.Get(), .events = POLLIN, .revents = 0};
        const timespec left = deadline.TimeLeft();
        const int ready = ppoll(&input, 1, &left, nullptr);
        if (ready == 0)
            return ETIMEDOUT;
        std::array<char, 4096> block{};
        const ssize_t count = ready == -1 ? -1 : recv(socket.Get(), block.data(), block.size(), 0);
        if (count == 0)
            return EPROTO;
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            return errno;
        line.append(block.data(), static_cast<std::size_t>(count));
        if (const std::size_t end = line.find('\n'); end != std::string::npos) {
            line.resize(end);
            return 0;
        }
        if (line.size() > cLongestMessage)
            return EPROTO;
    }
}

}  // namespace

std::optional<THostAnswer> LaunchByHost(const TLaunchRequest& request, int output, int& error) {
    const std::string message = EncodeRequest(request);
    error = EMSGSIZE;
    if (message.size() > cLongestMessage)
        return {};
    const CDescriptor socket = Connect();
    // The host does nothing before it has the end of the line.
    if (!socket.IsOpen() || !SendAllWith(socket.Get(), message, output)) {
        error = errno;
        return {};
    }
    std::string line;
    error = ReadLine(socket, line);
    // The host has closed the connection, or was killed, before it had read the request.
    if (error == ECONNRESET)
        return {};
    if (error != 0)
        return THostAnswer();
    const std::optional<TLaunchAnswer> answer = DecodeAnswer(line);
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
                "cannot connect to {}: {}; it is starting or ending, or could not make its socket; "
                "see its log, and vxschedd --check",
                cControlSocket, std::strerror(error));
    }
}

}  // namespace vxsched
