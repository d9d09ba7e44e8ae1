// Creates a task that is due now and wakes the scheduling process. Run it in the host's working
// directory: create_task NAME PROGRAM PARAMETER [HOURS]

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
    const long due = std::time(nullptr);
    const unsigned int hours =
        argc > 4 ? static_cast<unsigned int>(std::strtoul(argv[4], nullptr, 10)) : 0;
    CreateTask(argv[1], &due, hours, argv[2], argv[3]);

    // The scheduler checks for due tasks once a minute. Its stop event wakes it now, and stops
    // nothing.
    CEvent("libVantrixScheduler.so", false).SetEvent();

    // exit() would unload the library, which removes the store mutex for all processes.
    _exit(0);
}
