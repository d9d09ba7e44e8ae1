#include "host/CServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

CServiceManager::CServiceManager() {
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) > 0)
        patience = std::chrono::microseconds(microseconds);
}

void CServiceManager::Ready() const {
    sd_notify(0, "READY=1");
}

void CServiceManager::Stopping() const {
    sd_notify(0, "STOPPING=1");
}

void CServiceManager::Alive() const {
    sd_notify(0, "WATCHDOG=1");
}

void CServiceManager::Status(const std::string& text) {
    if (text == status)
        return;
    status = text;
    sd_notify(0, ("STATUS=" + text).c_str());
}
