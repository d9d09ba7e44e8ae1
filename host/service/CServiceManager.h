#pragma once

#include <chrono>
#include <string>

// What systemd is told of the host, through the socket that NOTIFY_SOCKET names; without one nothing
// is told to anybody. For the host's main thread.
class CServiceManager {
public:
    CServiceManager();

    void Ready() const;
    void Stopping() const;
    void Alive() const;

    // Shown by systemctl status; sent when it is another than before.
    void Status(const std::string& text);

    // How long systemd waits for Alive() before it takes the host for hung; zero: for ever.
    std::chrono::microseconds WatchdogTimeout() const { return lockTimeout; }

private:
    std::chrono::microseconds lockTimeout{0};
    std::string status;
};
