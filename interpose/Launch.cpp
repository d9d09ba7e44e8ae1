#include "interpose/Launch.h"

#include <sys/wait.h>

#include "interpose/NextDefinition.h"

static TLaunchHandlers gHandlers{nullptr, nullptr};

void SetLaunchHandlers(const TLaunchHandlers& handlers) {
    gHandlers = handlers;
}

TLaunchHandlers NextLaunchHandlers() {
    static const TLaunchHandlers next{NextDefinition<decltype(posix_spawn)>("posix_spawn"),
                                      NextDefinition<decltype(waitpid)>("waitpid")};
    return next;
}

// Called by the add-in to launch a program, on the launching thread, and by the program. Unlike
// libc's it calls the handler, if one is set. Like libc's it returns an error number; errno is
// unspecified.
INTERPOSED int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    const auto spawn = gHandlers.spawn != nullptr ? gHandlers.spawn : NextLaunchHandlers().spawn;
    return spawn(process, path, actions, attributes, arguments, environment);
}

// Called by the add-in once after each launch, on the same thread, and by the program. Unlike
// libc's it calls the handler, if one is set. Result and errno are the handler's.
INTERPOSED pid_t waitpid(pid_t process, int* status, int options) {
    const auto wait = gHandlers.wait != nullptr ? gHandlers.wait : NextLaunchHandlers().wait;
    return wait(process, status, options);
}
