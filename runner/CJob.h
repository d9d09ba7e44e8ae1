#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "base/CDescriptor.h"
#include "runner/CCopy.h"
#include "runner/CFollower.h"
#include "runs/COutputFile.h"
#include "runs/RunRecord.h"

// A program that runs as a child of this process, with a pipe for its output. For a process of one
// thread.
class CJob {
public:
    // Blocks SIGTERM and SIGCHLD. The output is copied to `outputCopy`, if it is not null, and to
    // `outputFollower`; the caller keeps both. What has not ended so long after it was terminated is
    // killed.
    CJob(CCopy* outputCopy, CFollower& outputFollower,
         std::chrono::milliseconds killAfter = std::chrono::seconds(10));
    CJob(const CJob&) = delete;
    CJob& operator=(const CJob&) = delete;

    // Launches the program, which leads a session of its own. Returns 0 or an error number. This
    // process becomes the parent of what the program's processes leave behind, and must have no
    // other children.
    int Launch(const char* program, char* const arguments[]);

    // The output goes to `outputFile`, which the caller keeps. To be called before the next two.
    void KeepIn(COutputFile& outputFile) { file = &outputFile; }

    // Waits for the program's end, keeping its output. SIGTERM has the program's process group
    // terminated, and later what is left of it killed; its end is then waited for as well, but for one
    // second at most once it was killed. Sets how `run` ended, and the resources of all its processes that have ended by then. The
    // output that the program has written is kept by then.
    void WaitForEnd(TRunRecord& run);

    // Whether a process that the program has left behind may still write, or the follower has not read
    // all yet.
    bool HasOutput() const { return pipe.IsOpen() || follower.WaitsFor() != -1; }

    // Keeps what is written until everybody has closed the output and the follower has its part, or
    // SIGTERM ends this process. To be called in a child of this process, if there can be one.
    void KeepOutput();

    pid_t Process() const { return process; }

private:
    bool ReadOutput(std::size_t most);
    void ReadWhatIsThere();
    void Wait(int milliseconds);
    void OnSignal();
    void CollectOrphans() const;
    bool HasEnded() const;
    int NextTimeout() const;
    bool IsOver() const;
    void Kill();
    void Collect(TRunRecord& run);

    COutputFile* file = nullptr;
    CCopy* const copy;
    CFollower& follower;
    CDescriptor signals;
    CDescriptor pipe;
    pid_t process = 0;
    // What the program's process group was sent.
    enum EStop { cNothing, cTerm, cKill };
    EStop stop = cNothing;
    std::string stoppedBy;
    const std::chrono::milliseconds killAfter;
    std::chrono::steady_clock::time_point stopLimit;  // of the wait for its end since then
};
