#pragma once

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "base/IsoTime.h"

// What a program used of the machine, together with the children that it waited for.
struct TUsage {
    std::chrono::microseconds user{0};
    std::chrono::microseconds system{0};
    long peakMemory = 0;  // KiB

    bool operator==(const TUsage&) const = default;
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

    bool operator==(const TRunRecord&) const = default;
};

// The record as JSON; docs/operating.md lists the fields.
nlohmann::ordered_json JsonOf(const TRunRecord& record);

// The record as one line of files/history.jsonl, its line break included. Bytes that are not UTF-8
// are replaced by U+FFFD.
std::string JsonLine(const TRunRecord& record);

// A text as a record that was read from a line has it.
std::string RecordedText(const std::string& text);

// What JsonLine() wrote, with RecordedText() of its texts. None for anything else, a line that was
// cut off or one of another version among it; fields that are not known are passed over.
std::optional<TRunRecord> ReadJsonLine(std::string_view line);
