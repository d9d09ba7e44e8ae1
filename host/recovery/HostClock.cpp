#include "host/recovery/HostClock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "host/CHostLog.h"
#include "host/service/CTickTimer.h"

namespace {

bool gClockStands = false;

constexpr char cFile[] = "files/started/alive";
constexpr std::chrono::seconds cBetweenTicks(60);

// In a file that no host has had its watch with: it begins behind its end.
constexpr std::int64_t cNoWatch = std::numeric_limits<std::int64_t>::max();

// What the file holds, in seconds since 1970.
struct TSign {
    std::int64_t last = 0;
    std::int64_t since = cNoWatch;
};

std::atomic<int> gFile{-1};  // as long as signs are left
std::atomic<std::int64_t> gSince{0};
std::atomic<std::int64_t> gLast{0};

bool WriteSign(int descriptor, const TSign& sign) {
    return pwrite(descriptor, &sign, sizeof sign, 0) == sizeof sign;
}

// Once a second at most.
void LeaveSign(std::int64_t now) {
    const int descriptor = gFile.load(std::memory_order_relaxed);
    if (descriptor != -1 && gLast.exchange(now, std::memory_order_relaxed) != now)
        static_cast<void>(WriteSign(descriptor, {.last = now, .since = gSince}));
}

}  // namespace

CStandingClock::CStandingClock() {
    gClockStands = true;
}

CStandingClock::~CStandingClock() {
    gClockStands = false;
}

CSignOfLife::CSignOfLife() : file(open(cFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    TSign sign;
    if (pread(file.Get(), &sign, sizeof sign, 0) == sizeof sign)
        former = TWatch{.since = vxsched::TTime(std::chrono::seconds(sign.since)),
                        .until = vxsched::TTime(std::chrono::seconds(sign.last) + cBetweenTicks)};
    // A full disk is told of here; from then on the sign takes the same room again and again.
    if (!file.IsOpen() || !WriteSign(file.Get(), former ? sign : TSign()))
        LogWarning(
            fmt::format("cannot write to {}: {}. After a kill, tasks that were due just before "
                        "will count as missed.",
                        cFile, std::strerror(errno)));
}

CSignOfLife::~CSignOfLife() {
    gFile = -1;
}

void CSignOfLife::Begin(vxsched::TTime since) {
    gSince = since.time_since_epoch().count();
    gFile = file.Get();
    LeaveSign(time(nullptr));
}

void CSignOfLife::Stop() {
    const std::int64_t now = time(nullptr);
    gFile = -1;
    static_cast<void>(
        WriteSign(file.Get(), {.last = now - cBetweenTicks.count(), .since = gSince}));
}

extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const int error = errno;
    LeaveSign(now.tv_sec);
    TellTick();
    errno = error;
    if (gClockStands)
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}
