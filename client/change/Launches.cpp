#include "client/change/Launches.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "base/Spawn.h"
#include "interpose/Launch.h"
#include "store/CLaunchEnvironment.h"

namespace vxsched {

static TLaunchListener gListener;
static std::string gTask;
static std::map<pid_t, int> gEnds;  // wait statuses of programs that the add-in has collected

static int Spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t*,
                 const posix_spawnattr_t*, char* const arguments[], char* const environment[]) {
    CSpawnAttributes attributes;
    attributes.ResetSignals();
    CSpawnActions actions;
    actions.CloseFrom(STDERR_FILENO + 1);
    const auto spawnWith = [&](char* const variables[]) {
        return NextLaunchHandlers().spawn(process, path, actions.Get(), attributes.Get(), arguments,
                                          variables);
    };
    const int error = SpawnForTask(environment, gTask.c_str(), std::nullopt, spawnWith);
    gListener(error == 0 ? *process : 0, error);
    return error;
}

static pid_t Wait(pid_t process, int* status, int options) {
    int known = 0;
    const pid_t result = NextLaunchHandlers().wait(process, &known, options);
    if (result > 0) {
        gEnds[result] = known;
        if (status != nullptr)
            *status = known;
    }
    return result;
}

// The add-in's pause: nobody waits for the store mutex because of it.
static unsigned int SkipPause(unsigned int /*seconds*/) {
    return 0;
}

void ListenToLaunches(TLaunchListener listener) {
    gListener = std::move(listener);
    SetLaunchHandlers({.spawn = Spawn, .wait = Wait, .sleep = SkipPause});
}

void SetLaunchedTask(const std::string& name) {
    gTask = name;
}

std::optional<int> WaitForEnd(pid_t process) {
    int status = 0;
    while (!gEnds.contains(process) && waitpid(process, &status, 0) == -1) {
        if (errno != EINTR)
            return {};
    }
    return gEnds[process];
}

}  // namespace vxsched
