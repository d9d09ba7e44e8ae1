#include "NotifySocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

CNotifySocket::CNotifySocket() : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string path = std::filesystem::absolute("notify").string();
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("bind");
        std::abort();
    }
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
}

CNotifySocket::~CNotifySocket() {
    close(descriptor);
    unlink("notify");
    unsetenv("NOTIFY_SOCKET");
}

std::string CNotifySocket::Next() {
    char text[4096];
    const ssize_t length = recv(descriptor, text, sizeof text, 0);
    return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
}

std::vector<std::string> CNotifySocket::Until(const std::string& message) {
    std::vector<std::string> messages;
    do {
        messages.push_back(Next());
    } while (messages.back() != message);
    return messages;
}

std::vector<std::string> CNotifySocket::Waiting() {
    std::vector<std::string> messages;
    char text[4096];
    ssize_t length = 0;
    while ((length = recv(descriptor, text, sizeof text, MSG_DONTWAIT)) > 0)
        messages.emplace_back(text, static_cast<std::size_t>(length));
    return messages;
}
