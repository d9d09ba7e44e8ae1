#include "host/service/CServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>

#include "host/SystemdLibrary.h"

static void Notify(const char* state) {
    // Without this check, libsystemd would be loaded only to find out the same.
    if (std::getenv("NOTIFY_SOCKET") == nullptr)
        return;
    if (auto* const notify = FindInSystemd<decltype(sd_notify)>("sd_notify"))
        notify(0, state);
}

CServiceManager::CServiceManager() {
    if (std::getenv("WATCHDOG_USEC") == nullptr)
        return;
    std::uint64_t microseconds = 0;
    auto* const isEnabled = FindInSystemd<decltype(sd_watchdog_enabled)>("sd_watchdog_enabled");
    // It also compares WATCHDOG_PID: the variables may be meant for a parent process.
    if (isEnabled != nullptr && isEnabled(0, &microseconds) > 0)
        watchdogTimeout = std::chrono::microseconds(microseconds);
}

void CServiceManager::Ready() const {
    Notify("READY=1");
}

void CServiceManager::Stopping() const {
    Notify("STOPPING=1");
}

void CServiceManager::Alive() const {
    Notify("WATCHDOG=1");
}

void CServiceManager::Status(const std::string& line) {
    if (line == status)
        return;
    status = line;
    Notify(("STATUS=" + line).c_str());
}
