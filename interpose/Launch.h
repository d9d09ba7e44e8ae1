#pragma once

#include <spawn.h>
#include <sys/types.h>

// Interposed posix_spawn() and waitpid(): the add-in's calls of them, on the thread that launches a
// program (the worker, or the caller of ExecuteTaskNow()), are handed on to these functions of the
// program. They have the parameters, results and errno of the originals and must not throw.
struct TLaunchHandlers {
    decltype(&posix_spawn) spawn;
    pid_t (*wait)(pid_t process, int* status, int options);
};

// Sets the handlers, to be called before any program can be launched: it is not synchronised with
// calls of them. Until then, and for a null handler, calls go to the next definitions.
void SetLaunchHandlers(const TLaunchHandlers& handlers);

// The next definitions of the two functions, for use by the handlers. Any thread may call it.
TLaunchHandlers NextLaunchHandlers();
