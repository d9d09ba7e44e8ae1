#pragma once

#include <ctime>

// An interposed time(). The add-in's calls of it come here, on whichever thread makes them, and so
// do the program's own.

// While an object exists, time() returns the smallest time_t, for all threads: no task is due, so
// that loading the add-in reschedules and removes no task. At most one object at a time, and none
// while the add-in's worker runs.
class CFrozenClock {
public:
    CFrozenClock();
    ~CFrozenClock();
    CFrozenClock(const CFrozenClock&) = delete;
    CFrozenClock& operator=(const CFrozenClock&) = delete;
};

// Sets the function to call with the system's time at every call of time(), on the calling thread;
// each tick makes one such call. Its result is that of the call, unless the clock is frozen. It
// must not throw, nor call time(). null: none. Any thread may set it.
void SetTimeHandler(time_t (*handler)(time_t now));
