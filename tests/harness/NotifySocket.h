#pragma once

#include <string>
#include <vector>

// Plays the service manager: a socket that programs started from now on find in NOTIFY_SOCKET.
class CNotifySocket {
public:
    CNotifySocket();
    ~CNotifySocket();
    CNotifySocket(const CNotifySocket&) = delete;
    CNotifySocket& operator=(const CNotifySocket&) = delete;

    // The next message, once there is one.
    std::string Next();

    // Reads until this message has come; all that came before it and itself.
    std::vector<std::string> Until(const std::string& message);

    // What has come already and was not read.
    std::vector<std::string> Waiting();

private:
    int descriptor;
};
