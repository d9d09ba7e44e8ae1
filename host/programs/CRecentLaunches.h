#pragma once

#include <scheduler/Scheduler.h>
#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <string>

// The launches of the last minute, so that no due time of a task that repeats is launched twice: a
// direct client that has read the table before a tick and saves it afterwards, since its load or
// another's has set the store mutex free, makes the task due again. Such a task shows the last
// launch that it had before; one that a command makes due again shows the present one. A task that
// runs once shows no difference to one that was created anew, and is launched.
//
// For the worker.
class CRecentLaunches {
public:
    // The process that was launched for the due time that the task has, if it has been.
    std::optional<pid_t> Find(const TTask& task) const;

    // `task` is as it was before the launch.
    void Add(const TTask& task, pid_t process);

private:
    using TClock = std::chrono::steady_clock;

    struct TLaunch {
        std::time_t due;
        std::time_t last;
        pid_t process;
        TClock::time_point made;
    };

    std::map<std::string, TLaunch> launches;  // by the task's name
    TClock::time_point pruned;
};
