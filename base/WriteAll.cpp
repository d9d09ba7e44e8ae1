#include "base/WriteAll.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

// `write` writes some bytes and returns as write() does.
template <typename Write>
static bool RepeatUntilAllIsWritten(std::string_view bytes, const Write& write) {
    while (!bytes.empty()) {
        const ssize_t count = write(bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (count == 0)
            errno = EIO;  // by no rule of POSIX, and trying again might never end
        if (errno != EINTR)
            return false;
    }
    return true;
}

bool WriteAll(int descriptor, std::string_view bytes) {
    return RepeatUntilAllIsWritten(
        bytes, [&](const char* data, std::size_t size) { return write(descriptor, data, size); });
}

bool WriteAllInTurn(int descriptor, std::string_view bytes) {
    return RepeatUntilAllIsWritten(bytes, [&](const char* data, std::size_t size) {
        const ssize_t count = write(descriptor, data, size);
        if (count == -1 && errno == EAGAIN) {
            pollfd reader{.fd = descriptor, .events = POLLOUT, .revents = 0};
            errno = poll(&reader, 1, -1) == -1 ? errno : EINTR;
        }
        return count;
    });
}

bool WriteAllAt(int descriptor, std::string_view bytes, off_t offset) {
    return RepeatUntilAllIsWritten(bytes, [&](const char* data, std::size_t size) {
        return pwrite(descriptor, data, size, offset + (data - bytes.data()));
    });
}

bool SendAll(int socket, std::string_view bytes) {
    return RepeatUntilAllIsWritten(bytes, [&](const char* data, std::size_t size) {
        return send(socket, data, size, MSG_NOSIGNAL);
    });
}
