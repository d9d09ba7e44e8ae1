#include "client/RunStatus.h"

#include <sys/wait.h>

#include <vxsched/Error.h>
#include "runs/RunEnd.h"
#include "store/MakeError.h"

namespace vxsched {

int FindWaitStatus(const std::filesystem::path& directory, const TRun& run) {
    if (run.id.empty())
        throw MakeError(EError::cFailed,
                        "how process {} ends is not reported: it has no runner, or its runner was "
                        "late or could not make its file in files/running; see vxsched history",
                        run.process);
    const TRunRecord end = FindEnd(directory, run.id);
    switch (end.outcome) {
        case TRunRecord::cExited:
            return W_EXITCODE(end.number, 0);
        case TRunRecord::cKilled:
            return W_EXITCODE(0, end.number);
        case TRunRecord::cRunnerDied:
            throw MakeError(
                EError::cFailed,
                "the runner of process {} was killed: how the program ends is not known",
                run.process);
        default:
            throw MakeError(EError::cFailed,
                            "there is no record of how process {} has ended, if it has: the "
                            "history is disabled, or could not be written",
                            run.process);
    }
}

}  // namespace vxsched
