#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "host/Times.h"

// What a program used of the machine, together with the children that it waited for.
struct TUsage {
    std::chrono::microseconds user{0};
    std::chrono::microseconds system{0};
    long peakMemory = 0;  // KiB
};

// What became of one due time of a task, or of one start.
struct TRunRecord {
    enum EOutcome {
        cExited,        // with `number`, its exit status
        cKilled,        // by signal `number`
        cUnknown,       // it ended, and somebody else learned how
        cLeftRunning,   // the host stopped first
        cNotStarted,    // the system refused: `error`
        cMovedOn,       // missed while no host ran; the task waits for its next time
        cRemovedUnrun,  // missed while no host ran, by a task that runs once
    };
    EOutcome outcome = cExited;
    std::optional<std::string> task;  // none when it cannot be told which task the start was for
    std::optional<std::chrono::sys_seconds> due;
    std::string program;
    std::string parameter;
    pid_t process = 0;  // 0: nothing was started
    std::optional<TMoment> started;
    std::optional<TMoment> ended;  // when the host learned of it
    int number = 0;
    TUsage usage;
    std::string error;
};

// The record as one line of files/history.jsonl, its line break included; docs/operating.md lists
// the fields. Bytes that are not UTF-8 are replaced by U+FFFD.
std::string JsonLine(const TRunRecord& record);
