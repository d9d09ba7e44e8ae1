// Calls the exported functions directly; compiled against the installed package, of which it
// includes the only header that a direct client needs.

#include <scheduler/Scheduler.h>

#include <cstdio>

int main() {
    const long due = 4'000'000'000;
    CreateTask("backup", &due, 24, "/opt/tools/backup", "all");
    unsigned int period = 0;
    if (!GetTaskPeriod("backup", &period) || period != 24 || gTaskList->size() != 1) {
        std::fprintf(stderr, "installed_client: the task is not in the table\n");
        return 1;
    }
    return 0;
}
