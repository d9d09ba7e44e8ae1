#pragma once

#include <ctime>
#include <optional>

#include "base/CDescriptor.h"
#include "host/recovery/Uptime.h"

// The heartbeat of a host, in files/started/alive: every call of time(), which each tick makes, leaves the time there.
// After a kill it says until when the host was up. It is written, not mapped: a file that is cut short, or a disk that
// is full, would end the host otherwise. In the directory of the table it would wake the table's guard each time.
//
// One at a time. Made, begun and stopped by the main thread.
class CHeartbeat {
public:
    // Of the working directory. Without the file, which is logged, there is no heartbeat.
    CHeartbeat();
    ~CHeartbeat();
    CHeartbeat(const CHeartbeat&) = delete;
    CHeartbeat& operator=(const CHeartbeat&) = delete;

    // The uptime of the host before this one, if there was one: up to a tick's distance after its last heartbeat when it
    // was killed, and to its end when it was stopped.
    const std::optional<TUptime>& FormerUptime() const { return former; }

    // From now on Beat() writes; the uptime is said to have begun at `since`.
    void Begin(vxsched::TTime since);

    // The host stops cleanly: nothing that comes due from now on was its task.
    void Stop();

    // Writes a heartbeat, once a second at most. For any thread; does nothing unless there is a heartbeat that was
    // begun. Failures are ignored: the file has its room from the constructor on.
    static void Beat(time_t now);

private:
    std::optional<TUptime> former;
    CDescriptor file;
};
