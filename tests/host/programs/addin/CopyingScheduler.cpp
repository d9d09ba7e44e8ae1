// The add-in, but for one difference: it launches a program with copies of the task's strings, so
// that a host cannot know the task.

#include <spawn.h>

#include <string>

// Called by the add-in in place of posix_spawn(), on the worker; the same but for the copies.
static int SpawnWithCopies(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    const std::string program = path;
    std::string parameter = arguments[1];
    char* const copies[] = {arguments[0], parameter.data(), nullptr};
    return posix_spawn(process, program.c_str(), actions, attributes, copies, environment);
}

#define posix_spawn SpawnWithCopies
#include "scheduler/Scheduler.cpp"
