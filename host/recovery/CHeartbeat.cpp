#include "host/recovery/CHeartbeat.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>

#include "host/CHostLog.h"
#include "store/Layout.h"

namespace {

constexpr std::chrono::seconds cTickInterval(60);

// `since` of a file in which no host has begun its uptime; it is after every `last`.
constexpr std::int64_t cNoUptime = std::numeric_limits<std::int64_t>::max();

// The content of the file, in seconds since 1970, in the byte order of the machine.
struct TContent {
    std::int64_t last = 0;
    std::int64_t since = cNoUptime;
    std::int64_t bootTime = 0;
    std::array<char, 40> bootId{};  // with a zero byte at the end; empty: unknown
};

TBoot (*gReadBoot)() = nullptr;  // set before gFile
std::atomic<int> gFile{-1};      // -1: no heartbeats are written
std::atomic<std::int64_t> gSince{0};
std::atomic<std::int64_t> gLast{0};

std::int64_t SecondsNow() {
    return vxsched::Now().time_since_epoch().count();
}

bool Write(int descriptor, const TContent& content) {
    return pwrite(descriptor, &content, sizeof content, 0) == sizeof content;
}

TContent ContentOf(std::int64_t last, std::int64_t since) {
    const TBoot boot = gReadBoot();
    TContent content{.last = last, .since = since, .bootTime = boot.time.count(), .bootId = {}};
    boot.id.copy(content.bootId.data(), content.bootId.size() - 1);
    return content;
}

// The uptime that the file shows, by the present clock; nothing if there was none, or if nothing
// shows when it was.
std::optional<TUptime> UptimeOf(const TContent& content, std::int64_t now) {
    if (content.since == cNoUptime)
        return std::nullopt;
    const TBoot boot = gReadBoot();
    const bool isSameBoot = !boot.id.empty() && boot.id == content.bootId.data();
    const std::chrono::seconds change =
        isSameBoot ? std::chrono::round<std::chrono::seconds>(
                         boot.time - std::chrono::milliseconds(content.bootTime))
                   : std::chrono::seconds(0);
    std::int64_t last = content.last + change.count();
    if (isSameBoot)
        last = std::min(last, now);
    else if (last > now)
        return std::nullopt;
    const std::int64_t since = std::min(content.since, content.since + change.count());
    return TUptime{.since = vxsched::TTime(std::chrono::seconds(since)),
                   .until = vxsched::TTime(std::chrono::seconds(last) + cTickInterval)};
}

}  // namespace

TBoot ReadBoot() {
    timespec clock{};
    timespec sinceBoot{};
    clock_gettime(CLOCK_REALTIME, &clock);
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto time = std::chrono::seconds(clock.tv_sec - sinceBoot.tv_sec) +
                      std::chrono::nanoseconds(clock.tv_nsec - sinceBoot.tv_nsec);
    // It does not change, and each heartbeat asks for it.
    static const std::string id = [] {
        std::string line;
        std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), line);
        return line;
    }();
    return {.id = id, .time = std::chrono::round<std::chrono::milliseconds>(time)};
}

CHeartbeat::CHeartbeat(TBoot (*readBoot)())
    : file(open(vxsched::cHeartbeatFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    gReadBoot = readBoot;
    TContent content;
    // Without a file, pread() would replace the errno of open(), which is reported below.
    if (file.IsOpen() && pread(file.Get(), &content, sizeof content, 0) == sizeof content)
        previous = UptimeOf(content, SecondsNow());
    // A full disk is reported here. Later heartbeats overwrite the same bytes and need no room.
    if (!file.IsOpen() || !Write(file.Get(), previous ? content : TContent()))
        LogWarning(
            fmt::format("cannot write to {}: {}. If this host is killed, tasks that were due just "
                        "before count as missed.",
                        vxsched::cHeartbeatFile, std::strerror(errno)));
}

CHeartbeat::~CHeartbeat() {
    gFile = -1;
}

void CHeartbeat::Begin(vxsched::TTime since) {
    gSince = since.time_since_epoch().count();
    gFile = file.Get();
    Beat(SecondsNow());
}

void CHeartbeat::Stop() {
    const std::int64_t now = SecondsNow();
    gFile = -1;
    static_cast<void>(Write(file.Get(), ContentOf(now - cTickInterval.count(), gSince)));
}

void CHeartbeat::Beat(time_t now) {
    const int descriptor = gFile.load();
    if (descriptor == -1 || gLast.exchange(now, std::memory_order_relaxed) == now)
        return;
    // The clock was set back: what comes due from now on is this host's as well.
    if (now < gSince)
        gSince = now;
    static_cast<void>(Write(descriptor, ContentOf(now, gSince)));
}
