#include "host/HostClock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "host/CHostLog.h"

namespace {

bool gClockStands = false;
std::atomic<int> gSign{-1};

constexpr char cFile[] = "files/vxschedd.alive";
constexpr std::chrono::seconds cBetweenTicks(60);

bool WriteSign(int descriptor, std::int64_t now) {
    return pwrite(descriptor, &now, sizeof now, 0) == sizeof now;
}

}  // namespace

CStandingClock::CStandingClock() {
    gClockStands = true;
}

CStandingClock::~CStandingClock() {
    gClockStands = false;
}

CSignOfLife::CSignOfLife() : file(open(cFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    std::int64_t sign = 0;
    if (pread(file.Get(), &sign, sizeof sign, 0) == sizeof sign && sign != 0)
        lastWatch = vxsched::TTime(std::chrono::seconds(sign) + cBetweenTicks);
    // A full disk is told of here; from then on the sign takes the same room again and again.
    if (!file.IsOpen() || !WriteSign(file.Get(), sign))
        LogWarning(
            fmt::format("cannot write to {}: {}. After a kill, tasks that were due just before "
                        "will count as missed.",
                        cFile, std::strerror(errno)));
}

CSignOfLife::~CSignOfLife() {
    gSign = -1;
}

void CSignOfLife::Begin() {
    gSign = file.Get();
}

void CSignOfLife::Stop() {
    const std::int64_t now = time(nullptr);
    gSign = -1;
    static_cast<void>(WriteSign(file.Get(), now - cBetweenTicks.count()));
}

extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const int error = errno;
    if (const int sign = gSign.load(std::memory_order_relaxed); sign != -1)
        static_cast<void>(WriteSign(sign, now.tv_sec));
    errno = error;
    if (gClockStands)
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}
