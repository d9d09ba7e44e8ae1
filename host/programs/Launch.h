#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "runs/RunnerLaunch.h"

class CProgramOutput;
class TTask;

// How much is kept of what runs leave, in bytes.
struct TKeptSizes {
    std::uint64_t history = 0;
    std::uint64_t output = 0;  // of each run
};

// Takes over the launches of the add-in (interpose/Launch.h): from now on its calls of
// posix_spawn() and waitpid() are handled here, and its sleep() after a launch takes `pause`, which
// holds up the tick and the store mutex. `tasks` is the add-in's exported `gTaskList`, in which each
// launch finds its task. What programs write is kept as `sizes` says and copied to where `output`
// decides; null: nowhere. The caller keeps both alive for as long as the worker runs. To be called
// while no program can be launched, since there is no lock.
void HandleLaunches(const std::list<TTask*>* const* tasks, const CProgramOutput* output,
                    std::chrono::seconds pause, const TKeptSizes& sizes);

// The time that a call of time() on this thread returns when the clock shows `now`: `now`, but for
// the call by which the add-in reschedules a task after a launch, or after one that failed. That one
// returns a time after the due time. The add-in leaves a task that repeats due as long as the clock
// shows its due time, and would launch it once more in the next tick of the same second.
time_t TimeOfCall(time_t now);

// Launches a program of a task at once, outside the schedule, for a client that holds the store
// mutex meanwhile, with the same handling as those of the add-in, but for due time and launch
// record. `follower` is a stream socket that gets what the program writes, until its run has ended;
// it stays the caller's; -1: none. Blocks until the program runs. For the main thread, while launches
// are handled. A failure is logged and recorded.
TLaunched LaunchByHand(const std::string& task, const std::string& program,
                       const std::string& parameter, int follower);

// Makes the launches that are owed because the system refused them for want of processes
// (COwedLaunches), with the same handling; those that it refuses again stay owed. Takes the store
// mutex; blocks briefly for that, and for disk access. For the main thread, while launches are
// handled.
void MakeOwedLaunches();

// Makes the next attempt of each run whose runner was killed before its program began, if the job has it
// retried. One that the system has no process for is made when another runner dies, or by the next
// host. Blocks until the runners have begun. For the main thread, while launches are handled.
void RetryLostRuns();

// Gives up the owed launches whose tasks were removed, paused or given another program since; logs
// and records that. `tasks` is a table of which no task was lost; the caller holds the store mutex.
// Any thread may call it.
void CancelOwedLaunches(const std::vector<vxsched::TTaskEntry>& tasks);

// Gives the three functions back to libc, under the same condition.
void StopHandlingLaunches();
