#include "base/PassDescriptor.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/WriteAll.h"

namespace {

struct alignas(cmsghdr) TControl {
    char bytes[CMSG_SPACE(sizeof(int))];
};

// Above what any program that is launched meanwhile is given.
constexpr int cLowest = 10;

msghdr MessageOf(iovec& part, TControl& control) {
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    // Room for one descriptor. With the padding, as of CMSG_SPACE, the system would find room for two.
    message.msg_controllen = CMSG_LEN(sizeof(int));
    return message;
}

}  // namespace

bool SendAllWith(int socket, std::string_view bytes, int passed) {
    if (passed == -1)
        return SendAll(socket, bytes);
    iovec part{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
    TControl control{};
    const msghdr message = MessageOf(part, control);
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(header), &passed, sizeof passed);
    ssize_t count = 0;
    do {
        count = sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (count == -1 && errno == EINTR);
    return count != -1 && SendAll(socket, bytes.substr(static_cast<std::size_t>(count)));
}

ssize_t ReceiveWith(int socket, char* block, std::size_t size, CDescriptor& passed) {
    iovec part{.iov_base = block, .iov_len = size};
    TControl control{};
    msghdr message = MessageOf(part, control);
    const ssize_t count = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (count == -1)
        return count;
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    const bool isCut = (message.msg_flags & MSG_CTRUNC) != 0;
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
        errno = EMFILE;
        return isCut ? -1 : count;
    }
    int received = -1;
    std::memcpy(&received, CMSG_DATA(header), sizeof received);
    const CDescriptor low(received);
    // A socket of the sender's may be set to hold up whoever closes it.
    const linger atOnce{.l_onoff = 0, .l_linger = 0};
    setsockopt(low.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    passed = CDescriptor(fcntl(low.Get(), F_DUPFD_CLOEXEC, cLowest));
    errno = EMFILE;
    return passed.IsOpen() && !isCut ? count : -1;
}
