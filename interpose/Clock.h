#pragma once

#include <ctime>

// The program's own time(): the add-in's calls of it come here, from whichever thread makes them, the program's own
// likewise. It reads the system's coarse clock, as libc's does, and never fails; errno stays as it was.

// While it lives, the clock is frozen at a time before all others: nothing is due, so a load of the add-in reschedules
// no task and removes none, however late the system comes to it. One at a time; not while the worker runs.
class CFrozenClock {
public:
    CFrozenClock();
    ~CFrozenClock();
    CFrozenClock(const CFrozenClock&) = delete;
    CFrozenClock& operator=(const CFrozenClock&) = delete;
};

// Has `listener` called with the system's time at every call of time(), on the thread that makes it; every tick makes
// one. It must not throw, nor call time() itself. null: nobody.
void SetTimeListener(void (*listener)(time_t now));
