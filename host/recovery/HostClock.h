#pragma once

#include <optional>

#include <vxsched/Table.h>
#include "base/CDescriptor.h"
#include "host/recovery/Uptime.h"

// The host's own time(), exported by the program, so that the add-in's calls of it come here. It is
// the system's, and does three things beside: the third is the tick timer.

// While it lives, the clock stands at a time before all others: nothing is due, so that a load of the
// add-in moves no start on and removes no task. For the main thread, before there is another one.
class CStandingClock {
public:
    CStandingClock();
    ~CStandingClock();
    CStandingClock(const CStandingClock&) = delete;
    CStandingClock& operator=(const CStandingClock&) = delete;
};

// Every tick asks for the time, and leaves it in files/started/alive: the last sign of life of a host
// that is killed. It is written, not mapped: a file that is cut short, or a disk that is full, would
// end the host otherwise. In the folder of the table it would wake the table's guard each time.
class CSignOfLife {
public:
    // Of the working directory. Without the file, which is logged, there is no sign.
    CSignOfLife();
    ~CSignOfLife();
    CSignOfLife(const CSignOfLife&) = delete;
    CSignOfLife& operator=(const CSignOfLife&) = delete;

    // The watch of the host before this one, if there was one: up to a tick's distance behind its last
    // sign when it was killed, and to its end when it was stopped.
    const std::optional<TWatch>& FormerWatch() const { return former; }

    // From now on signs are left; the watch is said to have begun at `since`.
    void Begin(vxsched::TTime since);

    // The host stops cleanly: nothing that comes due from now on was its task.
    void Stop();

private:
    std::optional<TWatch> former;
    CDescriptor file;
};
