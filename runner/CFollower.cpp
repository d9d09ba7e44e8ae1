#include "runner/CFollower.h"

#include <sys/socket.h>

#include <cerrno>

void CFollower::Take(std::string_view bytes) {
    if (!socket.IsOpen() || isEnding)
        return;
    pending += bytes;
    Send();
}

void CFollower::Send() {
    while (!pending.empty()) {
        // Does nothing to a descriptor that is no socket: a client of the host may pass one of a file
        // that it may only read.
        const ssize_t count =
            send(socket.Get(), pending.data(), pending.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            pending.erase(0, static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EAGAIN)
            break;
        if (errno != EINTR) {
            socket = CDescriptor();
            pending.clear();
        }
    }
    CloseIfDone();
}

void CFollower::HandOver() {
    socket = CDescriptor();
    pending.clear();
}

void CFollower::End() {
    isEnding = true;
    CloseIfDone();
}

void CFollower::CloseIfDone() {
    if (isEnding && pending.empty())
        socket = CDescriptor();
}
