#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

// While one of these exists, `time`, `sleep`, `posix_spawn` and `waitpid` of this process are
// fakes, for the loaded add-in as well: the clock is frozen until the test moves it, a sleep
// advances it and returns at once, a launch is recorded instead of made. Without one they are
// libc's. waitpid is a fake only for processes of fake launches. At most one exists at a time.
class CFakeSystem {
public:
    struct TLaunch {
        std::string path;
        std::vector<std::string> arguments;
        std::vector<const char*> passed;  // where the arguments are, during the launch
        bool plain = false;  // no file actions, no attributes, the environment of this process
    };

    explicit CFakeSystem(time_t time = 1'000'000);
    ~CFakeSystem();
    CFakeSystem(const CFakeSystem&) = delete;
    CFakeSystem& operator=(const CFakeSystem&) = delete;

    time_t now;                        // what time() returns
    std::vector<TLaunch> launches;     // every posix_spawn, failed ones included
    std::vector<unsigned int> sleeps;  // every sleep
    std::vector<pid_t> waits;          // the process of every waitpid
    int launchResult = 0;  // of posix_spawn; 0 hands out the process ids 400001, 400002, ...
    bool ended = false;    // waitpid returns the child's id (ended), or 0 (still running)
    int waitError = 0;     // if not 0, waitpid fails with this errno instead
    int timeReadings = 0;  // calls of time()
    std::function<void(const TLaunch&)> onLaunch;
    std::function<void()> onSleep;

    std::string LaunchedPaths() const;  // separated by blanks
};
