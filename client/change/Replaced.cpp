#include "client/change/Replaced.h"

#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <limits>
#include <map>

namespace vxsched {

namespace {

bool gClockStands = false;
TStartListener gStartListener;
std::map<pid_t, int> gEnds;  // of programs that the add-in has collected

template <typename Function>
Function* SystemsOwn(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CStandingClock::CStandingClock() {
    gClockStands = true;
}

CStandingClock::~CStandingClock() {
    gClockStands = false;
}

void SetStartListener(TStartListener listener) {
    gStartListener = std::move(listener);
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

extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (vxsched::gClockStands)
        now.tv_sec = std::numeric_limits<time_t>::min();
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

// A program gets no descriptor but the standard ones, an empty signal mask and default dispositions.
extern "C" int posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t*,
                           const posix_spawnattr_t*, char* const arguments[],
                           char* const environment[]) {
    static auto* const system = vxsched::SystemsOwn<decltype(posix_spawn)>("posix_spawn");
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes{};
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    const int error = system(process, path, &actions, &attributes, arguments, environment);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (vxsched::gStartListener)
        vxsched::gStartListener(error == 0 ? *process : 0, error);
    return error;
}

extern "C" pid_t waitpid(pid_t process, int* status, int options) {
    static auto* const system = vxsched::SystemsOwn<decltype(waitpid)>("waitpid");
    int known = 0;
    const pid_t result = system(process, &known, options);
    if (result > 0) {
        vxsched::gEnds[result] = known;
        if (status != nullptr)
            *status = known;
    }
    return result;
}
