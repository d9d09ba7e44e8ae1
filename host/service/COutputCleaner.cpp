#include "host/service/COutputCleaner.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <system_error>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "base/TimerSetting.h"
#include "runs/OutputFiles.h"
#include "store/CStoreMutexLock.h"
#include "store/Layout.h"
#include "store/TableFile.h"

static constexpr std::chrono::milliseconds cLockTimeout(100);
static constexpr std::chrono::seconds cInterval = std::chrono::days(1);
static constexpr std::chrono::seconds cRetry = std::chrono::minutes(1);

static void SetTimer(const CDescriptor& timer, std::chrono::nanoseconds time) {
    const itimerspec setting = ExpireOnce(time);
    timerfd_settime(timer.Get(), 0, &setting, nullptr);
}

// The names of the table's tasks; none if they cannot be read now.
static std::optional<std::set<std::string>> ReadNames() {
    try {
        const vxsched::CStoreMutexLock lock(cLockTimeout);
        if (!lock.IsHeld())
            return {};
        std::set<std::string> names;
        for (const auto& task :
             vxsched::DecodeTable(vxsched::ReadTableBytes("."), vxsched::Now()).tasks)
            names.insert(task.name);
        return names;
    } catch (const vxsched::CError&) {  // the guard reports what is wrong
        return {};
    }
}

COutputCleaner::COutputCleaner()
    : timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    SetTimer(timer, std::chrono::nanoseconds(1));
}

void COutputCleaner::Clean() const {
    std::uint64_t ignored = 0;
    static_cast<void>(read(timer.Get(), &ignored, sizeof ignored) == -1);
    std::error_code error;
    const bool hasOutputs = !std::filesystem::is_empty(vxsched::cOutputDirectory, error) && !error;
    const std::optional<std::set<std::string>> names =
        hasOutputs ? ReadNames() : std::set<std::string>();
    if (names)
        RemoveOutputsOfOthers(*names);
    SetTimer(timer, names ? cInterval : cRetry);
}
