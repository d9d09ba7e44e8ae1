#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

// While one of these exists, the process's `time`, `sleep`, `posix_spawn` and `waitpid` are played
// here, for the loaded add-in as well: the clock stands until it is moved, a sleep moves it and
// takes no time, a start is written down instead of made. Without one they are the system's own.
// (waitpid is played for the played processes only.)
class CFakeSystem {
public:
    struct TStart {
        std::string path;
        std::vector<std::string> arguments;
        bool plain = false;  // no file actions, no attributes, the environment of this process
    };

    explicit CFakeSystem(time_t start = 1'000'000);
    ~CFakeSystem();
    CFakeSystem(const CFakeSystem&) = delete;
    CFakeSystem& operator=(const CFakeSystem&) = delete;

    time_t now;                        // what time() says
    std::vector<TStart> starts;        // every posix_spawn, failed ones too
    std::vector<unsigned int> sleeps;  // every sleep
    std::vector<pid_t> waits;          // the process of every waitpid
    int startResult = 0;   // of posix_spawn; 0 hands out the process ids 400001, 400002, ...
    bool ended = false;    // waitpid finds the child ended (its id), or still running (0)
    int timeReadings = 0;  // calls of time()
    std::function<void(const TStart&)> onLaunch;
    std::function<void()> onSleep;

    std::string StartedPaths() const;  // separated by blanks
};
