#include "runs/RunEnd.h"

#include "base/CDeadline.h"
#include "runs/CRunWatch.h"
#include "runs/CRunningFile.h"
#include "runs/HistoryReader.h"

namespace vxsched {

bool WaitForRun(const std::string& directory, const std::string& id,
                std::optional<std::chrono::nanoseconds> limit) {
    const CRunWatch watch(directory);
    const auto deadline = limit ? std::optional<CDeadline>(*limit) : std::nullopt;
    while (IsRunning(directory, id)) {
        if (deadline && deadline->HasPassed())
            return false;
        watch.Wait();
    }
    return true;
}

TRunRecord FindEnd(const std::string& directory, const std::string& id) {
    if (const std::optional<TRunRecord> run = FindRecord(directory, id))
        return *run;
    if (const std::optional<TRunRecord> run = ReadRunningFile(directory, id))
        return *run;
    // Whoever records the end of a dead runner removes its file afterwards.
    if (const std::optional<TRunRecord> run = FindRecord(directory, id))
        return *run;
    TRunRecord unrecorded;
    unrecorded.id = id;
    unrecorded.outcome = TRunRecord::cUnknown;
    return unrecorded;
}

}  // namespace vxsched
