#include "host/service/CControlSocket.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Users.h"
#include "control/Messages.h"
#include "host/CHostLog.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cControlSocket;

// Changes are made one after the other, and each has one connection at most. The others are left
// behind; the oldest of them makes room. The host has descriptors for so many (Descriptors.h).
static constexpr std::size_t cMostConnections = 8;

// The number of the listening socket among the connections'.
static constexpr std::uint64_t cListener = 0;

// How many clients are accepted before the main loop does something else.
static constexpr int cMostAccepted = 64;

static constexpr int cBacklog = 64;

CControlSocket::CControlSocket(TAnswer answerLine) : answer(std::move(answerLine)) {
    Make();
    if (!isBound)
        LogWarning(
            fmt::format("cannot make the socket {}: {}. Programs that vxsched run launches "
                        "are not launched by this host.",
                        cControlSocket, std::strerror(errno)));
}

void CControlSocket::Make() {
    listener = CDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    CDescriptor made(epoll_create1(EPOLL_CLOEXEC));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    static_assert(sizeof cControlSocket <= sizeof address.sun_path);
    std::memcpy(address.sun_path, cControlSocket, sizeof cControlSocket);
    if (!listener.IsOpen() || !made.IsOpen() ||
        fchmod(listener.Get(), vxsched::PrivateMode(".")) == -1)
        return;
    struct stat former {};
    if (lstat(cControlSocket, &former) == 0 && S_ISSOCK(former.st_mode))
        unlink(cControlSocket);
    // The file gets the mode of the socket, but for the umask.
    const mode_t mask = umask(0);
    isBound =
        bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    umask(mask);
    if (isBound)
        events = std::move(made);
}

CControlSocket::~CControlSocket() {
    if (isBound)
        unlink(cControlSocket);
}

bool CControlSocket::Register(int socket, std::uint64_t number, std::uint32_t which) const {
    epoll_event event{.events = which, .data = {.u64 = number}};
    return epoll_ctl(events.Get(), EPOLL_CTL_ADD, socket, &event) == 0;
}

// Edge-triggered: a client that cannot be accepted, for want of descriptors, must not keep the main
// loop busy. The next client that comes is the next attempt.
void CControlSocket::Listen() {
    if (!isBound)
        return;
    listen(listener.Get(), cBacklog);
    Register(listener.Get(), cListener, EPOLLIN | EPOLLET);
}

void CControlSocket::Serve() {
    std::array<epoll_event, 16> ready{};
    const int count = epoll_wait(events.Get(), ready.data(), static_cast<int>(ready.size()), 0);
    for (int index = 0; index < count; ++index) {
        const epoll_event& event = ready.at(static_cast<std::size_t>(index));
        if (event.data.u64 == cListener) {
            AcceptAll();
            continue;
        }
        // It may have been closed since, to make room.
        if (const auto found = connections.find(event.data.u64); found != connections.end())
            OnReadable(found, (event.events & (EPOLLHUP | EPOLLERR)) != 0);
    }
}

void CControlSocket::AcceptAll() {
    for (int accepted = 0; accepted < cMostAccepted; ++accepted) {
        CDescriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.IsOpen()) {
            Add(std::move(socket));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            if (!std::exchange(isFailureLogged, true))
                LogWarning(fmt::format("cannot accept a client on {}: {}. This is logged once.",
                                       cControlSocket, std::strerror(errno)));
            if (connections.empty())
                return;
            CloseOldest();
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;
        }
    }
    // There may be more: has the next call of Serve() come here again.
    epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.u64 = cListener}};
    epoll_ctl(events.Get(), EPOLL_CTL_MOD, listener.Get(), &event);
}

void CControlSocket::Add(CDescriptor socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1)
        return;
    if (!vxsched::MayUse(peer.uid, ".")) {
        if (!std::exchange(isRefusalLogged, true))
            LogWarning(
                fmt::format("process {} of user {} is refused on {}: the store is not for "
                            "that user. This is logged once.",
                            peer.pid, FindUser(peer.uid).name, cControlSocket));
        return;
    }
    if (connections.size() == cMostConnections)
        CloseOldest();
    const std::uint64_t number = ++lastNumber;
    if (Register(socket.Get(), number, EPOLLIN))
        connections[number].socket = std::move(socket);
}

void CControlSocket::CloseOldest() {
    connections.erase(connections.begin());
}

// `isClosed`: the client is gone. One that has only ended what it sends waits for the answer.
void CControlSocket::OnReadable(TConnections::iterator connection, bool isClosed) {
    auto& [socket, received] = connection->second;
    std::array<char, 65536> block{};
    const ssize_t count =
        isClosed ? 0 : recv(socket.Get(), block.data(), block.size(), MSG_DONTWAIT);
    if (count == -1 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count > 0) {
        const std::string_view added(block.data(), static_cast<std::size_t>(count));
        const std::size_t end = added.find('\n');
        received += added.substr(0, end);
        const bool isTooLong = received.size() > vxsched::cLongestMessage;
        if (end == std::string_view::npos && !isTooLong)
            return;
        if (!isTooLong) {
            const std::string line = answer(received);
            // What does not fit is for a client that does not read.
            static_cast<void>(
                send(socket.Get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
        }
    }
    connections.erase(connection);
}
