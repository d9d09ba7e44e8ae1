// A client that has only what is installed, and of that only the one header that a client needs.

#include <scheduler/Scheduler.h>

#include <cstdio>

int main() {
    const long start = 4'000'000'000;
    CreateTask("backup", &start, 24, "/opt/tools/backup", "all");
    unsigned int period = 0;
    if (!GetTaskPeriod("backup", &period) || period != 24 || gTaskList->size() != 1) {
        std::fprintf(stderr, "installed_client: the task is not in the table\n");
        return 1;
    }
    return 0;
}
