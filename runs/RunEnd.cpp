#include "runs/RunEnd.h"

#include <algorithm>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "runs/CRunWatch.h"
#include "runs/HistoryReader.h"
#include "runs/RunningRuns.h"

namespace vxsched {

// The run of the next attempt begins before that of one is over.
static bool IsUnderWay(const std::string& directory, const std::string& id) {
    return IsRunning(directory, id) || !FindRunningRuns(directory, [&](const TRunRecord& run) {
                                            return run.retryOf == id;
                                        }).empty();
}

bool WaitForRun(const std::string& directory, const std::string& id,
                std::optional<std::chrono::nanoseconds> limit) {
    const CRunWatch watch(directory);
    const auto deadline = limit ? std::optional<CDeadline>(*limit) : std::nullopt;
    while (IsUnderWay(directory, id)) {
        if (deadline && deadline->HasPassed())
            return false;
        watch.Wait();
    }
    return true;
}

bool HasLaterAttempt(const std::string& directory, const TRunRecord& run) {
    const std::string& first = run.retryOf.empty() ? run.id : run.retryOf;
    const auto isLater = [&](const TRunRecord& one) {
        return one.retryOf == first && one.attempt > run.attempt;
    };
    // In the order in which an attempt passes through them.
    if (!FindRunningRuns(directory, isLater, run.id).empty() ||
        std::ranges::any_of(FindDeadRuns(directory, run.id), isLater))
        return true;
    try {
        const std::optional<TRunRecord> last = FindLastAttempt(directory, first);
        return last && isLater(*last);
    } catch (const CError&) {
        return false;
    }
}

TRunRecord FindEnd(const std::string& directory, const std::string& id) {
    // Before the history: whoever records the end of a dead runner removes its file afterwards.
    const std::optional<TRunRecord> left = ReadRunningFile(directory, id);
    if (left && left->outcome != TRunRecord::cRunnerDied)
        return *left;
    try {
        if (const std::optional<TRunRecord> run = FindLastAttempt(directory, id))
            return *run;
    } catch (const CError&) {
        if (!left)
            throw;
    }
    if (left)
        return *left;
    TRunRecord unrecorded;
    unrecorded.id = id;
    unrecorded.outcome = TRunRecord::cUnknown;
    return unrecorded;
}

}  // namespace vxsched
