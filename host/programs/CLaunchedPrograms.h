#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "runs/CRunHistory.h"
#include "runs/RunRecord.h"

// The programs that this process has started and not yet seen end. Every end is logged and recorded
// once, with how the program ended, how long it ran and what it used. Any thread may call any of
// these.
class CLaunchedPrograms {
public:
    // The one of this process.
    static CLaunchedPrograms& Instance();

    CLaunchedPrograms();

    // Records go to `runHistory` from now on, null: nowhere. The caller keeps it alive.
    void RecordIn(CRunHistory* runHistory);

    // A program was started, as run.process. Until Asked() it is left alone: whoever started it still
    // asks for it with waitpid, and gets its answer.
    void Started(const TRunRecord& run);

    // A program could not be started, for run.error.
    void NotStarted(const TRunRecord& run);

    // waitpid was called for `process` by whoever started it, with `result`, `status` and `usage`.
    // From now on the program is collected by CollectFinished().
    void Asked(pid_t process, pid_t result, int status, const rusage& usage);

    // Collects, by its process id, every program that has ended since. Never waits.
    void CollectFinished();

    // Logs and records that the programs that still run are left alone.
    void Leave();

    // Readable when CollectFinished() has something new to look at besides what SIGCHLD tells.
    int WakeDescriptor() const { return wakeDescriptor; }

    std::size_t Count();          // of those that run
    std::size_t CountLaunches();  // of all that were ever tried

private:
    struct TProgram {
        TRunRecord run;
        std::chrono::steady_clock::time_point start;
        bool asked = false;
    };
    using TPrograms = std::map<pid_t, TProgram>;

    void Ended(TProgram& program, int status, const rusage& usage);
    void Record(const TRunRecord& run);

    std::mutex mutex;
    TPrograms programs;
    std::size_t starts = 0;
    CRunHistory* history = nullptr;
    int wakeDescriptor;
};
