#include "host/programs/COwedLaunches.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/TimerSetting.h"
#include "host/CHostLog.h"
#include "host/recovery/CLaunchIntents.h"
#include "store/CStoreMutexLock.h"
#include "store/TableFile.h"

// Short: the main thread waits, and tries again in a second.
static constexpr std::chrono::milliseconds cLockTimeout(100);

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
                        "had no process for it: its launch is owed",
                        launch.task));
        launches.push_back(std::move(launch));
    }
    SetTimer();
}

void COwedLaunches::Add(const TOwedLaunch& launch) {
    KeepOwedLaunch(launch);
    CLaunchIntents::Instance().Withdraw(IntentOf(launch));  // of the tick
    const std::lock_guard<std::mutex> lock(mutex);
    // A direct client may have brought the due time back.
    std::erase_if(launches, [&](const TOwedLaunch& each) {
        return each.task == launch.task && each.due == launch.due;
    });
    launches.push_back(launch);
    SetTimer();
}

void COwedLaunches::ForgetMade(const std::string& task, vxsched::TTime due) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::erase_if(launches, [&](const TOwedLaunch& launch) {
        const bool isMade = launch.task == task && launch.due == due;
        if (isMade)
            ForgetOwedLaunch(launch);
        return isMade;
    });
}

void COwedLaunches::MakeAll(const std::function<bool(const TOwedLaunch&)>& make) {
    std::uint64_t ignored = 0;
    static_cast<void>(read(timer.Get(), &ignored, sizeof ignored) == -1);
    try {
        TryToMakeAll(make);
    } catch (const vxsched::CError&) {
        // A tick is under way, or somebody is saving the table, or the guard reports what is wrong.
    }
    const std::lock_guard<std::mutex> lock(mutex);
    SetTimer();
}

void COwedLaunches::TryToMakeAll(const std::function<bool(const TOwedLaunch&)>& make) {
    const vxsched::CStoreMutexLock storeMutex(cLockTimeout);
    // A direct client has removed the mutex; the worker makes it anew.
    if (!storeMutex.IsHeld()) {
        vxsched::WakeSchedulingProcess();
        return;
    }
    const auto tasks = vxsched::DecodeTable(vxsched::ReadTableBytes("."), vxsched::Now()).tasks;
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto launch = launches.begin(); launch != launches.end();) {
        // The table may have lost the task; the guard decides whether the launch is cancelled.
        if (!WhyNotWanted(*launch, tasks).empty()) {
            ++launch;
            continue;
        }
        CLaunchIntents::Instance().IntendOwed(IntentOf(*launch));
        const bool isMade = make(*launch);
        if (isMade)
            ForgetOwedLaunch(*launch);
        CLaunchIntents::Instance().Withdraw(IntentOf(*launch));
        if (!isMade)
            return;
        launch = launches.erase(launch);
    }
}

// Leaves the timer, since the main thread may wait for the last launch: it wakes up once more.
void COwedLaunches::Cancel(
    const std::vector<vxsched::TTaskEntry>& tasks,
    const std::function<void(const TOwedLaunch&, const std::string& reason)>& report) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::erase_if(launches, [&](const TOwedLaunch& launch) {
        const std::string reason = WhyNotWanted(launch, tasks);
        if (reason.empty())
            return false;
        report(launch, reason);
        ForgetOwedLaunch(launch);
        return true;
    });
}

std::size_t COwedLaunches::Count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return launches.size();
}

// In a second if anything is owed, else never.
void COwedLaunches::SetTimer() const {
    const itimerspec setting = ExpireOnce(std::chrono::seconds(launches.empty() ? 0 : 1));
    timerfd_settime(timer.Get(), 0, &setting, nullptr);
}
