#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/CDescriptor.h"
#include "runs/CRunHistory.h"
#include "runs/RunRecord.h"
#include "runs/RunnerLaunch.h"

// The programs that this process has launched and not yet collected. Every end is logged and
// recorded once, with how the program ended, how long it ran and what it used. Any thread may call
// any function; none waits for a program.
class CLaunchedPrograms {
public:
    // The one of this process.
    static CLaunchedPrograms& Instance();

    // Throws std::system_error when the system has no event descriptor.
    CLaunchedPrograms();

    // Records go to `runHistory` from now on; null: nowhere. The caller keeps it alive.
    void RecordIn(CRunHistory* runHistory);

    // For the time from before a launch until Launched(): the child is not known yet, and must not be
    // taken for an orphan.
    [[nodiscard]] std::unique_lock<std::mutex> Launching() { return std::unique_lock(launching); }

    // A program was launched, as run.process, by or as `child` of this process, as TLaunched has it.
    // The child is not collected before WaitedFor(): the add-in is about to call waitpid() for it, and must get
    // the answer.
    void Launched(const TRunRecord& run, pid_t child, ELaunchedChild kind);

    // Records the runs whose runners have died. Returns false if one could not be recorded.
    bool RecordDead();

    // The runs whose runners were killed before their programs began, and that their jobs have attempted
    // again. Each is recorded once RetryMade() was called for it.
    std::vector<TRunRecord> TakeLostRuns();
    void RetryMade(const TRunRecord& lost);

    // A program could not be launched, because of run.error.
    void LaunchFailed(const TRunRecord& run);

    // Logs and records due times that passed without a launch.
    void LaunchMissed(const TRunRecord& run);

    // A launch that this host owed is not made, because of run.error. Blocks until its record is on
    // the disk.
    void LaunchCancelled(const TRunRecord& run);

    // The add-in called waitpid() for the child `process`, with this result, status and usage. From now on
    // CollectFinished() may collect the program.
    void WaitedFor(pid_t process, pid_t result, int status, const rusage& usage);

    // Collects, each by its process id, all programs that have ended. As process 1 of a container also
    // the orphans that have: processes that programs have left to it.
    void CollectFinished();

    // Logs each program that still runs as left running, records that if it has no runner, and forgets
    // it.
    void LeaveRunning();

    // Readable when CollectFinished() should be called although no SIGCHLD came, and TakeLostRuns().
    int WakeDescriptor() const { return wakeDescriptor.Get(); }

    std::size_t Count();          // running programs
    std::size_t CountLaunches();  // launches so far, failed ones included

private:
    struct TProgram {
        TRunRecord run;
        std::chrono::steady_clock::time_point launched;
        bool wasWaitedFor = false;
        ELaunchedChild kind = ELaunchedChild::cProgram;
    };
    using TPrograms = std::map<pid_t, TProgram>;  // by the child

    // The caller holds `mutex`.
    void Ended(TProgram& program, int status, const rusage& usage);
    void RecordEnd(const TProgram& program);
    bool Record(const TRunRecord& run);  // false if it could not be written
    bool RecordDeadRuns();
    bool RecordDeadRun(TRunRecord run);
    bool IsLost(const TRunRecord& run) const;
    void RecordUnreported(TRunRecord run);
    void CollectOrphans();

    std::mutex launching;  // comes before `mutex`, but is only tried with that held
    std::mutex mutex;      // guards all below but wakeDescriptor
    TPrograms programs;
    std::size_t launches = 0;
    std::vector<TRunRecord> lostRuns;
    std::set<std::string> retriedRuns;  // the ids of those that are still to be recorded
    CRunHistory* history = nullptr;
    CDescriptor wakeDescriptor;
};
