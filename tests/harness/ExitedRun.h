#pragma once

#include "runs/RunRecord.h"

#include <chrono>

// The record of a run that ended with an exit status, with every field set.
inline TRunRecord Exited() {
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    TRunRecord record;
    record.outcome = TRunRecord::cExited;
    record.task = "nightly";
    record.due = std::chrono::sys_seconds(seconds(1'700'000'000));
    record.program = "/bin/program";
    record.parameter = "--all";
    record.process = 4711;
    record.started = TMoment(milliseconds(1'700'000'001'250));
    record.ended = TMoment(milliseconds(1'700'000'003'007));
    record.number = 3;
    record.usage = {.user = std::chrono::microseconds(1'500'000),
                    .system = std::chrono::microseconds(250'000),
                    .peakMemory = 2048};
    return record;
}
