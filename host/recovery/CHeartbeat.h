#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

#include "base/CDescriptor.h"
#include "host/recovery/Uptime.h"

// One start of the machine.
struct TBoot {
    std::string id;  // differs after each start of the machine
    // Since 1970, by the present clock: a clock that is set moves it.
    std::chrono::milliseconds time;
};

// Reads the boot of the system. The id is empty if it cannot be read.
TBoot ReadBoot();

// The heartbeat of a host, in files/started/alive: each call of time(), which every tick makes, and
// each second of a tick's wait for the store mutex writes the time there. After a kill the file
// shows until when the host was up.
//
// The content is 64 bytes: last, since (int64 each, seconds since 1970, in the machine's byte
// order), and the boot in which `last` was written: its time (int64, milliseconds) and its id (40
// bytes, padded with zeros). A clean stop writes last = stop - 60 s, so that the uptime, which ends
// 60 s after `last`, ends at the stop. Before the first uptime `since` is the largest int64.
//
// The clock may be set while a host is up or between two hosts. A clock that is set back to before
// `since` moves `since` to there. The time of the boot shows by how much the clock was set after
// `last`: the uptime of the previous host is given by the present clock, and what that host saw of
// its own clock counts too. If the machine was started again since, a heartbeat in the future shows
// no uptime at all.
//
// The file is written, not mapped: with a mapping, a truncated file or a full disk would kill the
// host. It is not in the directory of the table, where each heartbeat would wake the table guard.
//
// One at a time. Constructed, begun and stopped by the main thread.
class CHeartbeat {
public:
    // Opens the file in the working directory, whose files/started must exist. If that fails, which
    // is logged, there is no heartbeat. `readBoot` is called here and by each heartbeat.
    explicit CHeartbeat(TBoot (*readBoot)() = ReadBoot);
    ~CHeartbeat();
    CHeartbeat(const CHeartbeat&) = delete;
    CHeartbeat& operator=(const CHeartbeat&) = delete;

    // The uptime of the previous host, if there was one. For a killed host it ends one tick
    // interval after its last heartbeat, for a stopped one when it stopped.
    const std::optional<TUptime>& PreviousUptime() const { return previous; }

    // From now on Beat() writes. `since` becomes the beginning of the uptime.
    void Begin(vxsched::TTime since);

    // Ends the uptime now: the host stops cleanly, and what comes due later is not its job.
    void Stop();

    // Writes a heartbeat, at most once a second. Any thread may call it; it does nothing before
    // Begin() and after Stop(). Failures are ignored: the constructor has allocated the file's
    // block.
    static void Beat(time_t now);

private:
    std::optional<TUptime> previous;
    CDescriptor file;
};
