#pragma once

#include <spawn.h>
#include <sys/types.h>

// The program's own posix_spawn() and waitpid(): the add-in's calls of them come here, on the thread that launches a
// program, and go on to what the program has set. The results, errno included, are the handlers' own.
struct TLaunchHandlers {
    decltype(&posix_spawn) spawn;
    pid_t (*wait)(pid_t process, int* status, int options);
};

// To be called while no program can be launched. Until then the calls go to the next definitions.
void SetLaunchHandlers(const TLaunchHandlers& handlers);

// What the handlers call to launch a program and to ask for its end.
TLaunchHandlers NextLaunchHandlers();
