#include "FakeSystem.h"

#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

static CFakeSystem* gFake = nullptr;
static constexpr pid_t cFirstProcess = 400'001;  // beyond what the system hands out

CFakeSystem::CFakeSystem(time_t start) : now(start) {
    gFake = this;
}

CFakeSystem::~CFakeSystem() {
    gFake = nullptr;
}

std::string CFakeSystem::StartedPaths() const {
    std::string paths;
    for (const TStart& start : starts)
        paths += (paths.empty() ? "" : " ") + start.path;
    return paths;
}

template <typename Function>
static Function* SystemsOwn(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

extern "C" time_t time(time_t* out) noexcept {
    if (gFake == nullptr) {
        timespec now{};
        // The clock that the system's own reads, which steps with the timer and so may be in the
        // second before: a task made due by another clock could wait a minute for its next tick.
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        if (out != nullptr)
            *out = now.tv_sec;
        return now.tv_sec;
    }
    ++gFake->timeReadings;
    if (out != nullptr)
        *out = gFake->now;
    return gFake->now;
}

extern "C" unsigned int sleep(unsigned int seconds) {
    if (gFake == nullptr)
        return SystemsOwn<decltype(sleep)>("sleep")(seconds);
    gFake->sleeps.push_back(seconds);
    gFake->now += seconds;
    if (gFake->onSleep)
        gFake->onSleep();
    return 0;
}

extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    if (gFake == nullptr)
        return SystemsOwn<decltype(posix_spawn)>("posix_spawn")(process, path, actions, attributes,
                                                                arguments, environment);
    CFakeSystem::TStart start{.path = path, .arguments = {}, .plain = false};
    for (char* const* argument = arguments; *argument != nullptr; ++argument)
        start.arguments.emplace_back(*argument);
    start.plain = actions == nullptr && attributes == nullptr && environment == environ;
    gFake->starts.push_back(start);
    if (gFake->onLaunch)
        gFake->onLaunch(start);
    if (gFake->startResult == 0)
        *process = cFirstProcess - 1 + static_cast<pid_t>(gFake->starts.size());
    return gFake->startResult;
}

extern "C" pid_t waitpid(pid_t process, int* status, int options) {
    if (gFake == nullptr || process < cFirstProcess)
        return SystemsOwn<decltype(waitpid)>("waitpid")(process, status, options);
    gFake->waits.push_back((options & WNOHANG) != 0 ? process : -process);
    return gFake->ended ? process : 0;
}
