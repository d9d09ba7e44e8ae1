#include "host/service/CDueTimer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "base/TimerSetting.h"

using std::chrono::nanoseconds;

static itimerspec SettingOf(std::optional<CDueWake::TTime> next) {
    return ExpireOnce(next ? std::max(next->time_since_epoch(), nanoseconds(1)) : nanoseconds(0));
}

CDueTimer::CDueTimer() : timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {}

void CDueTimer::TableChanged(std::optional<std::chrono::sys_seconds> due) {
    const std::lock_guard<std::mutex> lock(mutex);
    wake.TableChanged(due);
    Arm();
}

bool CDueTimer::TakeWake() {
    const std::lock_guard<std::mutex> lock(mutex);
    std::uint64_t ignored = 0;
    if (read(timer.Get(), &ignored, sizeof ignored) == -1 && errno == ECANCELED)
        wake.ClockSet();
    const bool isDue = wake.Take(std::chrono::system_clock::now());
    Arm();
    return isDue;
}

// A stopped timer reports that the clock is set as well. A change that was not reported yet makes
// the call fail, but sets the timer all the same.
void CDueTimer::Arm() {
    itimerspec setting = SettingOf(wake.Next());
    while (timerfd_settime(timer.Get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &setting,
                           nullptr) == -1 &&
           errno == ECANCELED) {
        wake.ClockSet();
        setting = SettingOf(wake.Next());
    }
}
