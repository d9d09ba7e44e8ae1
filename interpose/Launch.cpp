#include "interpose/Launch.h"

#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "interpose/NextDefinition.h"

static TLaunchHandlers gHandlers{nullptr, nullptr, nullptr};

// Whether the next sleep of this thread is the pause after its launch.
static thread_local bool gIsPauseNext = false;

void SetLaunchHandlers(const TLaunchHandlers& handlers) {
    gHandlers = handlers;
}

TLaunchHandlers NextLaunchHandlers() {
    static const TLaunchHandlers next{NextDefinition<decltype(posix_spawn)>("posix_spawn"),
                                      NextDefinition<decltype(waitpid)>("waitpid"),
                                      NextDefinition<decltype(sleep)>("sleep")};
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
    const int result = spawn(process, path, actions, attributes, arguments, environment);
    gIsPauseNext = result == 0;
    return result;
}

// Called by the add-in once after each launch, on the same thread, and by the program. Unlike
// libc's it calls the handler, if one is set. Result and errno are the handler's.
INTERPOSED pid_t waitpid(pid_t process, int* status, int options) {
    const auto wait = gHandlers.wait != nullptr ? gHandlers.wait : NextLaunchHandlers().wait;
    return wait(process, status, options);
}

// Called by the add-in for two seconds after each launch, on the same thread, under the store
// mutex, and by the program's libraries. Unlike libc's it calls the handler for the add-in's pause,
// if one is set; every other sleep is libc's. Result and errno are those of the function called.
INTERPOSED unsigned int sleep(unsigned int seconds) {
    const bool isPause = std::exchange(gIsPauseNext, false);
    const auto pause =
        isPause && gHandlers.sleep != nullptr ? gHandlers.sleep : NextLaunchHandlers().sleep;
    return pause(seconds);
}
