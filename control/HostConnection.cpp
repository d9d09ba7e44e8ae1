#include "control/HostConnection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "base/CDeadline.h"
#include "base/CDescriptor.h"
#include "base/PassDescriptor.h"
#include "control/Messages.h"
#include "runs/RunnerLaunch.h"
#include "store/Layout.h"

namespace vxsched {

// Longer than the host waits for a runner: a launch that is answered late is not one that is unknown.
static constexpr std::chrono::seconds cLimit = cRunnerLimit + std::chrono::seconds(1);

// Closed if none listens, with the reason in errno.
static CDescriptor ConnectToHost(const std::filesystem::path& directory) {
    CDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{.tv_sec = cLimit.count(), .tv_usec = 0};
    setsockopt(made.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::string path = directory / cControlSocket;
    CDescriptor store;
    // An address is shorter than paths may be.
    if (path.size() >= sizeof address.sun_path) {
        store = CDescriptor(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        path = fmt::format("/proc/self/fd/{}/{}", store.Get(), cControlSocket);
    }
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(made.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        return CDescriptor();
    return made;
}

// Reads the host's line. Returns an error number or 0.
static int ReceiveLine(const CDescriptor& socket, std::string& line) {
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

THostReply AskHost(const std::filesystem::path& directory, std::string_view request, int passed) {
    const CDescriptor socket = ConnectToHost(directory);
    if (!socket.IsOpen())
        return {.outcome = THostReply::cNotReached, .error = errno};
    // The host does nothing before it has the end of the line.
    if (!SendAllWith(socket.Get(), request, passed))
        return {.outcome = THostReply::cTurnedAway, .error = errno};
    THostReply reply;
    reply.error = ReceiveLine(socket, reply.line);
    if (reply.error == ECONNRESET)
        reply.outcome = THostReply::cTurnedAway;
    else if (reply.error != 0)
        reply.outcome = THostReply::cUnanswered;
    return reply;
}

}  // namespace vxsched
