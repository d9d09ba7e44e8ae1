#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vxsched {

inline constexpr std::chrono::minutes cDefaultBackoff(1);
// Of TJob::catchUp: however late.
inline constexpr std::chrono::seconds cAnyDelay = std::chrono::seconds::max();

// What the runner is to execute, and how. Strings may hold any byte but zero.
struct TJob {
    std::string task;  // its name in the records of a launch by a host that does not tell it

    // The program and its arguments, as they are; empty if `shell` is set.
    std::vector<std::string> command;
    std::optional<std::string> shell;  // a text for `/bin/sh -c`

    // The calendar by which the task is launched; the table's period is an hour then.
    std::string cron;  // an expression, as ParseCron() reads it; empty: the grid of the period
    std::string zone;  // of that; empty: the machine's
    // How late a launch is still made that was due while no host ran, or the machine slept; without:
    // none is.
    std::optional<std::chrono::seconds> catchUp;
    std::optional<std::chrono::sys_seconds>
        until;  // without a launch after that, the task is removed

    std::string user;                      // name or number; empty: the launcher's
    std::string group;                     // name or number; empty: the user's main one
    std::string directory;                 // absolute; empty: the user's home or the launcher's
    std::optional<mode_t> umask;           // without: the launcher's
    std::vector<std::string> environment;  // each NAME=VALUE
    std::vector<std::string> environmentFiles;  // absolute paths of files of such lines

    std::optional<std::chrono::seconds> timeout;    // after which the job is terminated
    std::optional<std::chrono::seconds> killAfter;  // after which it is killed then
    std::vector<std::uint8_t> success;              // the good exit statuses; empty: 0

    // What becomes of a launch by the schedule while a run of the task is under way.
    enum EOverlap { cSkip, cQueue, cAllow, cReplace };
    EOverlap overlap = cSkip;

    std::optional<std::chrono::seconds> randomDelay;  // before a launch by the schedule, at most

    std::uint32_t retries = 0;  // further attempts of a run that has failed
    std::optional<std::chrono::seconds>
        backoff;  // before the first of them; without: cDefaultBackoff

    // Texts for `/bin/sh -c` at the end of a run, and whom to write to; empty: none.
    std::string onFailure;
    std::string onSuccess;
    std::string onRecovery;
    std::string mail;

    bool operator==(const TJob&) const = default;
};

// The program that is executed, and its arguments.
std::vector<std::string> CommandOf(const TJob& job);

}  // namespace vxsched
