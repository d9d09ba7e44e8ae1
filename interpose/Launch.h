#pragma once

#include <spawn.h>
#include <sys/types.h>

// Interposed posix_spawn(), waitpid() and sleep(): the add-in's calls of them, on the thread that
// launches a program (the worker, or the caller of ExecuteTaskNow()), are handed on to these
// functions of the program. They have the parameters, results and errno of the originals and must
// not throw.
struct TLaunchHandlers {
    decltype(&posix_spawn) spawn;
    pid_t (*wait)(pid_t process, int* status, int options);
    // Only of the add-in's pause after a launch, with the store mutex held: of the first sleep of a
    // thread after a posix_spawn() of that thread that succeeded.
    unsigned int (*sleep)(unsigned int seconds);
};

// Sets the handlers, to be called before any program can be launched: it is not synchronised with
// calls of them. Until then, and for a null handler, calls go to the next definitions.
void SetLaunchHandlers(const TLaunchHandlers& handlers);

// The next definitions of the three functions, for use by the handlers. Any thread may call it.
TLaunchHandlers NextLaunchHandlers();
