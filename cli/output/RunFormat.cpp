#include "cli/output/RunFormat.h"

#include <fmt/format.h>

#include "base/Duration.h"
#include "base/SignalName.h"

namespace vxsched {

// What ended it, if that was not the program itself.
static std::string AfterItsStop(const TRunRecord& run) {
    if (run.timeLimit)
        return fmt::format("terminated after its time limit of {}: ",
                           FormatDuration(*run.timeLimit));
    return run.stoppedBy.empty() ? "" : fmt::format("stopped by {}: ", run.stoppedBy);
}

static std::string Missed(const TRunRecord& run) {
    return run.missed == 0 ? "missed" : fmt::format("missed {} times", run.missed);
}

std::string FormatOutcome(const TRunRecord& run) {
    switch (run.outcome) {
        case TRunRecord::cExited:
            return AfterItsStop(run) + fmt::format("exited {}", run.number);
        case TRunRecord::cKilled:
            return AfterItsStop(run) + "killed by " + SignalName(run.number);
        case TRunRecord::cUnknown:
            return "unknown";
        case TRunRecord::cLeftRunning:
            return "left running";
        case TRunRecord::cNotStarted:
            return "not started: " + run.error;
        case TRunRecord::cRescheduled:
            return Missed(run) + ", rescheduled";
        case TRunRecord::cRemoved:
            return Missed(run) + ", removed";
        case TRunRecord::cLaunchUnknownRescheduled:
            return "launch unknown, rescheduled";
        case TRunRecord::cLaunchUnknownRemoved:
            return "launch unknown, removed";
        case TRunRecord::cRunnerDied:
            return "runner died";
        case TRunRecord::cSkipped:
            return fmt::format("skipped: run {} is under way", run.underWay);
    }
    return "";
}

bool HasLaunch(const TRunRecord& run) {
    switch (run.outcome) {
        case TRunRecord::cRescheduled:
        case TRunRecord::cRemoved:
        case TRunRecord::cLaunchUnknownRescheduled:
        case TRunRecord::cLaunchUnknownRemoved:
            return false;
        default:
            return true;
    }
}

std::string FormatMoment(const std::optional<TMoment>& moment, EZone zone) {
    return moment ? FormatTime(std::chrono::floor<std::chrono::seconds>(*moment), zone) : "-";
}

std::optional<std::chrono::milliseconds> TimeTaken(const TRunRecord& run) {
    if (!run.started || !run.ended || run.outcome == TRunRecord::cNotStarted ||
        run.outcome == TRunRecord::cSkipped)
        return {};
    return *run.ended - *run.started;
}

std::string FormatSpan(std::chrono::milliseconds span) {
    if (span >= std::chrono::minutes(1))
        return FormatDistance(std::chrono::floor<std::chrono::seconds>(span));
    return fmt::format("{:.{}f}s", std::chrono::duration<double>(span).count(),
                       span < std::chrono::seconds(10) ? 2 : 1);
}

}  // namespace vxsched
