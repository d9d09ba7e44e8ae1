#include "runner/COverlapLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>

#include "base/CDeadline.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cRunningDirectory;

static constexpr std::chrono::seconds cOthersTimeout(1);

static CDescriptor OpenRunningDirectory() {
    return CDescriptor(open(cRunningDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

COverlapLock::COverlapLock() : directory(OpenRunningDirectory()) {
    if (!directory.IsOpen() && errno == ENOENT) {
        vxsched::MakePrivateDirectory(cRunningDirectory, ".");
        directory = OpenRunningDirectory();
    }
    const CDeadline deadline(cOthersTimeout);
    while (flock(directory.Get(), LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK &&
           deadline.Pause(std::chrono::milliseconds(1))) {
    }
}

// Whether somebody else than its runner has the file, who records that the runner has died.
static bool IsOfDeadRunner(const vxsched::TRunning& running) {
    return running.runner != 0 && RunnerOf(running.run.id) != running.runner;
}

std::vector<vxsched::TRunning> COverlapLock::FindOthers(const TRunRecord& run) {
    if (!run.task)
        return {};
    std::vector<vxsched::TRunning> others = vxsched::FindRunningRuns(".", *run.task, run.id);
    // One whose runner has recorded its end is over.
    std::erase_if(others, [](const vxsched::TRunning& running) {
        return running.run.outcome != TRunRecord::cRunnerDied || IsOfDeadRunner(running);
    });
    const std::vector<vxsched::TRunning> orphans = vxsched::FindOrphans(".", *run.task, run.id);
    others.insert(others.end(), orphans.begin(), orphans.end());
    return others;
}
