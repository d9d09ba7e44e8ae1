#include "host/service/CTickTimer.h"

#include <atomic>

#include "base/TimerSetting.h"
#include "host/HostThread.h"

static std::atomic<const CTickTimer*> gTimer{nullptr};

CTickTimer::CTickTimer(std::chrono::milliseconds longest)
    : limit(longest), timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    Restart();
    gTimer = this;
}

CTickTimer::~CTickTimer() {
    gTimer = nullptr;
}

// Setting an expired timer makes its descriptor unreadable again.
void CTickTimer::Restart() const {
    const itimerspec setting = ExpireOnce(limit);
    timerfd_settime(timer.Get(), 0, &setting, nullptr);
}

void RestartTickTimer() {
    const CTickTimer* const timer = gIsHostThread ? nullptr : gTimer.load();
    if (timer != nullptr)
        timer->Restart();
}
