#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "runs/RunRecord.h"

// The runs that have a CRunningFile: those under way, and those whose runner has died. The file of one
// whose program goes on without its runner is kept in files/orphans/ once the run is recorded.

// Calls `record` with each run in the working directory whose runner has died or could not record its
// end, and removes its file if that returns true. Returns false if one was not recorded. Several
// processes may call this at once: each run is recorded by one of them. Blocks for disk access only.
// Files that cannot be opened are left. Not for the process of a CRunningFile, which would lose its
// lock.
bool RecordDeadRunners(const std::function<bool(const TRunRecord&)>& record);

namespace vxsched {

// A run whose runner is alive, or the process of its program.
struct TRunning {
    TRunRecord run;
    pid_t runner = 0;       // 0: it is in another PID namespace
    bool isOrphan = false;  // its runner has died
};

// The name of a run's task as FileNameOf() encodes it. Two names that no record tells apart, since they
// are not UTF-8, differ in it.
std::string TaskFileNameOf(const TRunRecord& run);

// The runs under way in the store of a directory that were launched for a task of that name, or
// those of which `isWanted` returns true, in the order of their ids. Blocks for disk access only;
// what this user may not read is left out. The file of the run `own` is not opened: its runner may call
// this.
std::vector<TRunning> FindRunningRuns(const std::string& directory, const std::string& task,
                                      const std::string& own = "");
std::vector<TRunning> FindRunningRuns(const std::string& directory,
                                      const std::function<bool(const TRunRecord&)>& isWanted,
                                      const std::string& own = "");

// The runs of a task whose runner has died, and whose program goes on: its process is the one that was
// launched. What its other processes do is not known. Blocks for disk access only. Forgets those that
// have ended, if this user may.
std::vector<TRunning> FindOrphans(const std::string& directory, const std::string& task,
                                  const std::string& own = "");

// The runs in the store of a directory whose runner has died or could not record its end, as they would
// be recorded. A runner may have been killed after it had recorded its run. Blocks for disk access
// only; what this user may not read is left out. The file of the run `own` is not opened.
std::vector<TRunRecord> FindDeadRuns(const std::string& directory, const std::string& own = "");

// Sends the runner of a run SIGTERM, that of an orphan to the process group of its program, or nobody if
// it has ended. The run's record names `user` as who has
// had it stopped. Returns 0 or an error number: EPERM for a runner of another user's, EXDEV for one in
// another PID namespace.
int Terminate(const std::string& directory, const TRunning& running, uid_t user);

// Whether the runner of that run is alive. Also true if this user may not read its file, or the system
// has no descriptor for that: the file is there until the run is recorded.
bool IsRunning(const std::string& directory, const std::string& id);

// What the file of a run has, as long as there is one: how the run has ended if its runner could not
// record that, cRunnerDied if the runner has died, and also while it is alive.
std::optional<TRunRecord> ReadRunningFile(const std::string& directory, const std::string& id);

}  // namespace vxsched
