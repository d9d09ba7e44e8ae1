// Creates a task that is due now and has the scheduling process look at it at once. To be run in
// the directory of the host: create_task NAME PROGRAM PARAMETER [HOURS]

#include <CEvent.h>
#include <scheduler/Scheduler.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: create_task NAME PROGRAM PARAMETER [HOURS]\n");
        return 2;
    }
    const long start = std::time(nullptr);
    const unsigned int hours =
        argc > 4 ? static_cast<unsigned int>(std::strtoul(argv[4], nullptr, 10)) : 0;
    CreateTask(argv[1], &start, hours, argv[2], argv[3]);

    // The scheduler looks by itself within a minute; its stop event wakes it now, and stops
    // nothing.
    CEvent("libVantrixScheduler.so", false).SetEvent();

    // A normal exit would unload the library, and that takes the store mutex away from the host.
    _exit(0);
}
