#include "host/HostClock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "host/CDescriptor.h"
#include "host/CHostLog.h"
#include "host/CTickTimer.h"

namespace {

using TSign = std::atomic<std::int64_t>;

bool gClockStands = false;
std::atomic<TSign*> gSign{nullptr};

constexpr char cFile[] = "files/vxschedd.alive";
constexpr std::chrono::seconds cBetweenTicks(60);

}  // namespace

CStandingClock::CStandingClock() {
    gClockStands = true;
}

CStandingClock::~CStandingClock() {
    gClockStands = false;
}

CSignOfLife::CSignOfLife() {
    const CDescriptor file(open(cFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (file.IsOpen() && ftruncate(file.Get(), sizeof(TSign)) == 0)
        memory = mmap(nullptr, sizeof(TSign), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    if (memory == nullptr || memory == MAP_FAILED) {
        LogWarning(
            fmt::format("cannot use {}: {}. After a kill, tasks that were due just before "
                        "will count as missed.",
                        cFile, std::strerror(errno)));
        memory = nullptr;
        return;
    }
    const std::int64_t sign = *static_cast<TSign*>(memory);
    if (sign != 0)
        lastWatch = vxsched::TTime(std::chrono::seconds(sign) + cBetweenTicks);
}

CSignOfLife::~CSignOfLife() {
    gSign = nullptr;
    if (memory != nullptr)
        munmap(memory, sizeof(TSign));
}

void CSignOfLife::Begin() {
    gSign = static_cast<TSign*>(memory);
}

void CSignOfLife::Stop() {
    const std::int64_t now = time(nullptr);
    gSign = nullptr;
    if (memory != nullptr)
        *static_cast<TSign*>(memory) = now - cBetweenTicks.count();
}

extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (TSign* const sign = gSign.load(std::memory_order_relaxed))
        sign->store(now.tv_sec, std::memory_order_relaxed);
    TellTick();
    if (gClockStands)
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}
