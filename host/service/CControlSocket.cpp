#include "host/service/CControlSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/PassDescriptor.h"
#include "base/Users.h"
#include "control/Messages.h"
#include "host/CHostLog.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cControlSocket;

// Changes are made one after the other, and each has one connection at most. The others are left
// behind; the oldest of them makes room. The host has descriptors for so many (Descriptors.h).
static constexpr std::size_t cMostConnections = 8;

// The numbers of what is no connection, among the connections'.
static constexpr std::uint64_t cListenerNumber = 0;
static constexpr std::uint64_t cWatchNumber = 1;
static constexpr std::uint64_t cRetryNumber = 2;

// How many clients are accepted before the main loop does something else.
static constexpr int cMostAccepted = 64;

static constexpr int cBacklog = 64;

// A descriptor that is given up to turn a client away.
static CDescriptor OpenSpare() {
    return CDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

CControlSocket::CControlSocket(TAnswer answerLine)
    : answer(std::move(answerLine)), events(epoll_create1(EPOLL_CLOEXEC)), spare(OpenSpare()) {
    Register(file.Retry().Get(), cRetryNumber, EPOLLIN);
    UseFile();
}

void CControlSocket::UseFile() const {
    if (!file.IsMade())
        return;
    Register(file.Watch().Get(), cWatchNumber, EPOLLIN);
    if (isListening)
        StartListening();
}

bool CControlSocket::Register(int socket, std::uint64_t number, std::uint32_t which) const {
    epoll_event event{.events = which, .data = {.u64 = number}};
    return epoll_ctl(events.Get(), EPOLL_CTL_ADD, socket, &event) == 0;
}

// Edge-triggered: a client that cannot even be turned away must not keep the main loop busy. The next
// client that comes is the next attempt.
void CControlSocket::StartListening() const {
    listen(file.Socket().Get(), cBacklog);
    Register(file.Socket().Get(), cListenerNumber, EPOLLIN | EPOLLET);
}

void CControlSocket::Listen() {
    isListening = true;
    if (file.IsMade())
        StartListening();
}

void CControlSocket::Serve() {
    std::array<epoll_event, 16> ready{};
    const int count = epoll_wait(events.Get(), ready.data(), static_cast<int>(ready.size()), 0);
    for (int index = 0; index < count; ++index) {
        const epoll_event& event = ready.at(static_cast<std::size_t>(index));
        if (event.data.u64 == cListenerNumber) {
            AcceptAll();
            continue;
        }
        if (event.data.u64 == cWatchNumber || event.data.u64 == cRetryNumber) {
            if (file.MakeIfGone())
                UseFile();
            continue;
        }
        // It may have been closed since, to make room.
        if (const auto found = connections.find(event.data.u64); found != connections.end())
            OnReadable(found, (event.events & (EPOLLHUP | EPOLLERR)) != 0);
    }
}

void CControlSocket::AcceptAll() {
    for (int accepted = 0; accepted < cMostAccepted; ++accepted) {
        CDescriptor socket(
            accept4(file.Socket().Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.IsOpen()) {
            Add(std::move(socket));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            if (!std::exchange(isFailureLogged, true))
                LogWarning(fmt::format("cannot accept a client on {}: {}. This is logged once.",
                                       cControlSocket, std::strerror(errno)));
            if (!connections.empty())
                CloseOldest();
            else if (!TurnAway())
                return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;
        }
    }
    // There may be more: has the next call of Serve() come here again.
    epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.u64 = cListenerNumber}};
    epoll_ctl(events.Get(), EPOLL_CTL_MOD, file.Socket().Get(), &event);
}

// Closes the connection of a client that waits, which then does without the host. False if that is not
// possible either.
bool CControlSocket::TurnAway() {
    spare = CDescriptor();
    const bool isAccepted =
        CDescriptor(accept4(file.Socket().Get(), nullptr, nullptr, SOCK_CLOEXEC)).IsOpen();
    spare = OpenSpare();
    return isAccepted;
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
        connections[number] = {
            .socket = std::move(socket), .user = peer.uid, .passed = CDescriptor()};
}

void CControlSocket::CloseOldest() {
    connections.erase(connections.begin());
}

// What does not fit is for a client that does not read.
static void Send(const CDescriptor& socket, const std::string& line) {
    static_cast<void>(send(socket.Get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

// `isClosed`: the client is gone. One that has only ended what it sends waits for the answer.
void CControlSocket::OnReadable(TConnections::iterator connection, bool isClosed) {
    auto& [socket, user, passed, received] = connection->second;
    std::array<char, 65536> block{};
    const ssize_t count =
        isClosed ? 0 : ReceiveWith(socket.Get(), block.data(), block.size(), passed);
    if (count == -1 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count == -1 && errno == EMFILE)
        Send(socket,
             vxsched::EncodeAnswer({.error = EMFILE,
                                    .message = "the host could not take the descriptor that "
                                               "was passed"}));
    if (count > 0) {
        const std::string_view added(block.data(), static_cast<std::size_t>(count));
        const std::size_t end = added.find('\n');
        received += added.substr(0, end);
        const bool isTooLong = received.size() > vxsched::cLongestMessage;
        if (end == std::string_view::npos && !isTooLong)
            return;
        if (!isTooLong) {
            const std::string line = answer(received, {.user = user, .passed = passed.Get()});
            Send(socket, line);
        }
    }
    connections.erase(connection);
}
