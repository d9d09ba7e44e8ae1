#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "base/CDescriptor.h"
#include "runner/CCopy.h"
#include "runner/CFollower.h"
#include "runner/Execute.h"
#include "runs/COutputFile.h"
#include "runs/RunRecord.h"

inline constexpr std::chrono::seconds cDefaultKillAfter(10);

// A program that runs as a child of this process, with a pipe for its output. For a process of one
// thread.
class CJob {
public:
    // Blocks SIGTERM and SIGCHLD. The output is copied to `outputCopy`, if it is not null, and to
    // `outputFollower`; the caller keeps both. What has not ended so long after it was terminated is
    // killed.
    CJob(CCopy* outputCopy, CFollower& outputFollower,
         std::chrono::milliseconds killAfter = cDefaultKillAfter);
    CJob(const CJob&) = delete;
    CJob& operator=(const CJob&) = delete;

    // Launches the program, which leads a session of its own. This process becomes the parent of what
    // the program's processes leave behind, and must have no other children.
    TExecuted Launch(const TExecution& execution, const char* program, char* const arguments[]);

    // Has a later stop reach all that the program has started and that has not ended, also what has left
    // its process group.
    void ReachAll() { reach = cDescendants; }

    // Stops the program, as SIGTERM to this process does, after it has run for so long without a
    // suspended machine; what has not ended so long after that is killed. To be called before the launch.
    void LimitTime(std::chrono::milliseconds limit, std::chrono::milliseconds killLater) {
        timeLimit = limit;
        killAfterLimit = killLater;
    }

    // The output goes to `outputFile`, which the caller keeps. To be called before the next two.
    void KeepIn(COutputFile& outputFile) { file = &outputFile; }

    // Waits for the program's end, keeping its output. SIGTERM has the program's process group, or all
    // that ReachAll() says, terminated, and later what is left of it killed; its end is then waited for
    // as well, but for one second at most once it was killed. Sets how `run` ended, whether it has
    // exceeded its time limit, and the resources of all its processes that have ended by then. The output
    // that the program has written is kept by then.
    void WaitForEnd(TRunRecord& run);

    // Whether a process that the program has left behind may still write, or the follower has not read
    // all yet.
    bool HasOutput() const { return pipe.IsOpen() || follower.WaitsFor() != -1; }

    // Keeps what is written until everybody has closed the output and the follower has its part, or
    // SIGTERM ends this process. To be called in a child of this process, if there can be one.
    void KeepOutput();

    pid_t Process() const { return process; }

private:
    CDescriptor OpenPipe();
    int Spawn(const char* program, char* const arguments[], char* const environment[]);
    bool ReadOutput(std::size_t most);
    void ReadWhatIsThere();
    void Wait(int milliseconds);
    void OnSignal();
    void CollectOrphans() const;
    bool HasEnded() const;
    int NextTimeout() const;
    bool IsOver();
    bool IsAnyLeft();
    void Terminate(std::chrono::milliseconds killLater);
    void Kill();
    void TerminateDescendants();
    void KillDescendants();
    void GoOnStopping();
    bool HasExceededItsTime() const;
    void CollectProgram();
    void Collect(TRunRecord& run);

    COutputFile* file = nullptr;
    CCopy* const copy;
    CFollower& follower;
    CDescriptor signals;
    CDescriptor pipe;
    pid_t process = 0;
    std::optional<int> waitStatus;  // of the program, once it is collected
    // Whom a stop reaches.
    enum EReach { cGroup, cDescendants };
    EReach reach = cGroup;
    // What these were sent.
    enum EStop { cNothing, cTerm, cKill };
    EStop stop = cNothing;
    std::set<pid_t> terminated;                       // of the descendants
    std::chrono::steady_clock::time_point nextRound;  // of looking for more of them
    std::string stoppedBy;
    std::optional<std::chrono::milliseconds> timeLimit;
    std::chrono::milliseconds killAfterLimit = cDefaultKillAfter;
    std::chrono::steady_clock::time_point launched;
    bool hasExceededItsTime = false;
    const std::chrono::milliseconds killAfter;
    std::chrono::steady_clock::time_point stopLimit;  // of the wait for its end since then
};
