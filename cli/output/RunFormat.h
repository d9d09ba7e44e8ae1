#pragma once

#include <optional>
#include <string>

#include "cli/time/TimeFormat.h"
#include "runs/RunRecord.h"

namespace vxsched {

// What became of it: exited 3, killed by KILL, missed and moved on, ...
std::string OutcomeText(const TRunRecord& run);

// False for what needs a look: another exit status than 0, a death, a failed start, a missed time.
bool WentWell(const TRunRecord& run);

// To the second, as FormatTime(); - for none.
std::string FormatMoment(const std::optional<TMoment>& moment, EZone zone);

// From its start to its end; none when it did not have both.
std::optional<std::chrono::milliseconds> TimeTaken(const TRunRecord& run);

// As 0.35s or 12.3s, and from a minute on in the two largest units, as FormatDistance().
std::string FormatSpan(std::chrono::milliseconds span);

}  // namespace vxsched
