// The host's own posix_spawn and waitpid, exported by the program, so that the add-in's calls of
// them come here. A started program gets what a child should have, whatever the host's threads have
// blocked and the host has open, and the host learns of every start and every end. Both then do
// exactly what the system's do.

#include <VXC_Log.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "host/CStartedPrograms.h"

namespace {

class CSpawnAttributes {
public:
    // An empty signal mask and every signal's default disposition.
    CSpawnAttributes() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~CSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    CSpawnAttributes(const CSpawnAttributes&) = delete;
    CSpawnAttributes& operator=(const CSpawnAttributes&) = delete;

    const posix_spawnattr_t* Get() const { return &attributes; }

private:
    posix_spawnattr_t attributes{};
};

class CSpawnActions {
public:
    // Nothing open beyond standard input, output and error.
    CSpawnActions() {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    }
    ~CSpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    CSpawnActions(const CSpawnActions&) = delete;
    CSpawnActions& operator=(const CSpawnActions&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &actions; }

private:
    posix_spawn_file_actions_t actions{};
};

template <typename Function>
Function* SystemsOwn(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    static auto* const system = SystemsOwn<decltype(posix_spawn)>("posix_spawn");
    const CSpawnAttributes cleanAttributes;
    const CSpawnActions cleanActions;
    const int result =
        system(process, path, actions != nullptr ? actions : cleanActions.Get(),
               attributes != nullptr ? attributes : cleanAttributes.Get(), arguments, environment);
    if (result == 0)
        CStartedPrograms::Instance().Started(*process, path,
                                             arguments[1] != nullptr ? arguments[1] : "");
    else
        VXC_LogMessage(fmt::format("vxschedd: cannot start {}: {}",
                                   *path != '\0' ? path : "an empty path", std::strerror(result)));
    return result;
}

extern "C" pid_t waitpid(pid_t process, int* status, int options) {
    static auto* const system = SystemsOwn<decltype(waitpid)>("waitpid");
    int known = 0;
    const pid_t result = system(process, &known, options);
    const int error = errno;
    if (result > 0 && status != nullptr)
        *status = known;
    CStartedPrograms::Instance().Asked(process, result, known);
    errno = error;
    return result;
}
