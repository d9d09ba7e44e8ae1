#include "FakeSystem.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <cerrno>

static CFakeSystem* gFake = nullptr;
static constexpr pid_t cFirstProcess = 400'001;  // above any real process id

CFakeSystem::CFakeSystem(time_t time) : now(time) {
    gFake = this;
}

CFakeSystem::~CFakeSystem() {
    gFake = nullptr;
}

std::string CFakeSystem::LaunchedPaths() const {
    std::string paths;
    for (const TLaunch& launch : launches)
        paths += (paths.empty() ? "" : " ") + launch.path;
    return paths;
}

// The four functions below are called by the tests, by the harness and by the add-in, on whichever
// thread: the test program exports them, so the dynamic linker binds the add-in to them. Without a
// CFakeSystem they do what libc does, errno included. With one they leave errno alone, and only
// waitpid fails if the test asks for it.

extern "C" time_t time(time_t* out) noexcept {
    if (gFake == nullptr) {
        timespec now{};
        // libc's time() reads this clock, which advances with the timer interrupt and can still be
        // in the previous second: a task made due by another clock could wait a minute for its
        // next tick.
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

// Advances the fake clock and returns at once.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (gFake == nullptr)
        return NextDefinition<decltype(sleep)>("sleep")(seconds);
    gFake->sleeps.push_back(seconds);
    gFake->now += seconds;
    if (gFake->onSleep)
        gFake->onSleep();
    return 0;
}

// Starts nothing: records the launch and returns `launchResult`.
extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    if (gFake == nullptr)
        return NextDefinition<decltype(posix_spawn)>("posix_spawn")(
            process, path, actions, attributes, arguments, environment);
    CFakeSystem::TLaunch launch{.path = path, .arguments = {}, .passed = {}, .plain = false};
    for (char* const* argument = arguments; *argument != nullptr; ++argument) {
        launch.arguments.emplace_back(*argument);
        launch.passed.push_back(*argument);
    }
    launch.plain = actions == nullptr && attributes == nullptr && environment == environ;
    gFake->launches.push_back(launch);
    if (gFake->onLaunch)
        gFake->onLaunch(launch);
    if (gFake->launchResult == 0)
        *process = cFirstProcess - 1 + static_cast<pid_t>(gFake->launches.size());
    return gFake->launchResult;
}

// Real processes are still waited for by libc.
extern "C" pid_t waitpid(pid_t process, int* status, int options) {
    if (gFake == nullptr || process < cFirstProcess)
        return NextDefinition<decltype(waitpid)>("waitpid")(process, status, options);
    gFake->waits.push_back((options & WNOHANG) != 0 ? process : -process);
    if (gFake->waitError != 0) {
        errno = gFake->waitError;
        return -1;
    }
    return gFake->ended ? process : 0;
}
