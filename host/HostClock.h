#pragma once

#include "client/Table.h"
#include "host/CDescriptor.h"

// The host's own time(), exported by the program, so that the add-in's calls of it come here. It is
// the system's, and does two things beside.

// While it lives, the clock stands at a time before all others: nothing is due, so that a load of the
// add-in moves no start on and removes no task. For the main thread, before there is another one.
class CStandingClock {
public:
    CStandingClock();
    ~CStandingClock();
    CStandingClock(const CStandingClock&) = delete;
    CStandingClock& operator=(const CStandingClock&) = delete;
};

// Every tick asks for the time, and leaves it in files/vxschedd.alive: the last sign of life of a host
// that is killed. It is written, not mapped: a file that is cut short, or a disk that is full, would
// end the host otherwise.
class CSignOfLife {
public:
    // Of the working directory. Without the file, which is logged, there is no sign.
    CSignOfLife();
    ~CSignOfLife();
    CSignOfLife(const CSignOfLife&) = delete;
    CSignOfLife& operator=(const CSignOfLife&) = delete;

    // Until when the host before this one looked after tasks: up to a tick's distance behind its last
    // sign when it was killed, and to its end when it was stopped. The beginning of 1970: never.
    vxsched::TTime LastWatch() const { return lastWatch; }

    // From now on signs are left.
    void Begin();

    // The host stops cleanly: nothing that comes due from now on was its task.
    void Stop();

private:
    vxsched::TTime lastWatch;
    CDescriptor file;
};
