#pragma once

#include <chrono>
#include <string>

// Notifies systemd of the host's state, through the socket in NOTIFY_SOCKET; without one, all
// functions do nothing. Failures are ignored. For the main thread.
class CServiceManager {
public:
    CServiceManager();

    void Ready() const;
    void Stopping() const;
    void Alive() const;

    // Sets the line that systemctl status shows. Sends it only if it differs from the last one.
    void Status(const std::string& line);

    // How long systemd waits for Alive() before it kills the host as hung; zero: it does not.
    std::chrono::microseconds WatchdogTimeout() const { return watchdogTimeout; }

private:
    std::chrono::microseconds watchdogTimeout{0};
    std::string status;
};
