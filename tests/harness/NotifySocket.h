#pragma once

#include <string>
#include <vector>

// A fake service manager: the socket that programs started from now on find in NOTIFY_SOCKET.
class CNotifySocket {
public:
    CNotifySocket();
    ~CNotifySocket();
    CNotifySocket(const CNotifySocket&) = delete;
    CNotifySocket& operator=(const CNotifySocket&) = delete;

    // The next message, once there is one.
    std::string Next();

    // Reads until this message arrives. Returns all messages up to and including it.
    std::vector<std::string> Until(const std::string& message);

    // The messages that have arrived and were not read yet. Does not block.
    std::vector<std::string> Waiting();

private:
    int descriptor;
};
