// Records of runs, formatted for a person.

#pragma once

#include <optional>
#include <string>

#include "cli/time/TimeFormat.h"
#include "runs/RunRecord.h"

namespace vxsched {

// The outcome: "exited 3", "killed by SIGKILL", "missed, rescheduled".
std::string FormatOutcome(const TRunRecord& run);

// False for a due time without a launch that is known of.
bool HasLaunch(const TRunRecord& run);

// To the second, as FormatTime() writes it; "-" if empty.
std::string FormatMoment(const std::optional<TMoment>& moment, EZone zone);

// From the launch to the exit; empty unless the record has both and the program was started.
std::optional<std::chrono::milliseconds> TimeTaken(const TRunRecord& run);

// 0.35s or 12.3s; from one minute on as FormatDistance() writes it.
std::string FormatSpan(std::chrono::milliseconds span);

}  // namespace vxsched
