#include "host/recovery/CHeartbeat.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
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
};

std::atomic<int> gFile{-1};  // -1: no heartbeats are written
std::atomic<std::int64_t> gSince{0};
std::atomic<std::int64_t> gLast{0};

bool Write(int descriptor, const TContent& content) {
    return pwrite(descriptor, &content, sizeof content, 0) == sizeof content;
}

}  // namespace

CHeartbeat::CHeartbeat() : file(open(vxsched::cHeartbeatFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    TContent content;
    // Without a file, pread() would replace the errno of open(), which is reported below.
    if (file.IsOpen() && pread(file.Get(), &content, sizeof content, 0) == sizeof content)
        previous =
            TUptime{.since = vxsched::TTime(std::chrono::seconds(content.since)),
                    .until = vxsched::TTime(std::chrono::seconds(content.last) + cTickInterval)};
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
    Beat(std::time(nullptr));
}

void CHeartbeat::Stop() {
    const std::int64_t now = std::time(nullptr);
    gFile = -1;
    static_cast<void>(Write(file.Get(), {.last = now - cTickInterval.count(), .since = gSince}));
}

void CHeartbeat::Beat(time_t now) {
    const int descriptor = gFile.load(std::memory_order_relaxed);
    if (descriptor != -1 && gLast.exchange(now, std::memory_order_relaxed) != now)
        static_cast<void>(Write(descriptor, {.last = now, .since = gSince}));
}
