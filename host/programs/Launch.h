#pragma once

#include <list>
#include <vector>

#include <vxsched/Table.h>

class CProgramOutput;
class TTask;

// Takes over the launches of the add-in (interpose/Launch.h): from now on its calls of
// posix_spawn() and waitpid() are handled here. `tasks` is the add-in's exported `gTaskList`, in
// which each launch finds its task. Programs write where `output` decides; null: where the host
// does. The caller keeps both alive for as long as the worker runs. To be called while no program
// can be launched, since there is no lock.
void HandleLaunches(const std::list<TTask*>* const* tasks, const CProgramOutput* output);

// Makes the launches that are owed because the system refused them for want of processes
// (COwedLaunches), with the same handling; those that it refuses again stay owed. Takes the store
// mutex; blocks briefly for that, and for disk access. For the main thread, while launches are
// handled.
void MakeOwedLaunches();

// Gives up the owed launches whose tasks were removed, paused or given another program since; logs
// and records that. `tasks` is a table of which no task was lost; the caller holds the store mutex.
// Any thread may call it.
void CancelOwedLaunches(const std::vector<vxsched::TTaskEntry>& tasks);

// Gives posix_spawn() and waitpid() back to libc, under the same condition.
void StopHandlingLaunches();
