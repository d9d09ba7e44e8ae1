#include "host/programs/COwedLaunches.h"

#include <fmt/format.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <optional>

#include "host/CHostLog.h"
#include "host/recovery/CLaunchIntents.h"

COwedLaunches& COwedLaunches::Instance() {
    static COwedLaunches instance;
    return instance;
}

COwedLaunches::COwedLaunches()
    : timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {}

void COwedLaunches::TakeOver() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (TOwedLaunch& launch : ReadOwedLaunches()) {
        LogNotice(
            fmt::format("task \"{}\" was due while the previous host was up, but the system "
                        "had no process for it: it is launched now",
                        launch.task));
        launches.push_back(std::move(launch));
    }
    SetTimer();
}

void COwedLaunches::Add(const TOwedLaunch& launch) {
    KeepOwedLaunch(launch);
    CLaunchIntents::Instance().Withdraw(IntentOf(launch));  // of the tick
    const std::lock_guard<std::mutex> lock(mutex);
    launches.push_back(launch);
    SetTimer();
}

void COwedLaunches::MakeAll(const std::function<bool(const TOwedLaunch&)>& make) {
    std::uint64_t ignored = 0;
    static_cast<void>(read(timer.Get(), &ignored, sizeof ignored) == -1);
    const auto oldest = [this]() -> std::optional<TOwedLaunch> {
        const std::lock_guard<std::mutex> lock(mutex);
        return launches.empty() ? std::nullopt : std::optional(launches.front());
    };
    // Other threads only add launches, so the oldest one is still the first afterwards.
    while (const std::optional<TOwedLaunch> launch = oldest()) {
        CLaunchIntents::Instance().IntendOwed(IntentOf(*launch));
        const bool isMade = make(*launch);
        if (isMade)
            ForgetOwedLaunch(*launch);
        CLaunchIntents::Instance().Withdraw(IntentOf(*launch));
        if (!isMade)
            break;
        const std::lock_guard<std::mutex> lock(mutex);
        launches.pop_front();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    SetTimer();
}

std::size_t COwedLaunches::Count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return launches.size();
}

// In a second if anything is owed, else never.
void COwedLaunches::SetTimer() const {
    itimerspec setting{};
    setting.it_value.tv_sec = launches.empty() ? 0 : 1;
    timerfd_settime(timer.Get(), 0, &setting, nullptr);
}
