#pragma once

// The exported functions of libVantrixScheduler.so, for programs that manage tasks. Needs no other
// header.
//
// 1. Loading the library is enough to use these functions: it builds the scheduler's add-in object,
//    reads "files/scheduler.dat" in the process's working directory, reschedules repeating tasks
//    that are past due, removes those that run once and are past due, and writes the file back.
//    Unloading it (also by a normal exit of the process) removes the store mutex from the system,
//    for every other process too.
// 2. Times are seconds since the epoch, periods whole hours; a task with a period of 0 runs once.
// 3. Strings are zero-terminated and copied; a pointer that the caller passes stays the
//    caller's. A name is compared byte for byte; the first task of a name in the table is the one
//    meant. It must not be null.
// 4. Every call takes the store mutex, waiting without limit, and reads the task file first, except
//    on the scheduling thread, whose own list is the current one. While a tick launches programs a
//    call waits at least two seconds for each of them. It must not be made where the mutex is
//    already held.
// 5. A call that "writes" rewrites the whole task file in place; one that "signals" makes the
//    scheduling process read the file at its next tick, at most 60 seconds later.
// 6. A file that cannot be opened is no error: nothing is found, nothing is changed. A file that is
//    damaged is logged, reset to an empty table and reported as the host information flag
//    "TasksDeleted".
// 7. An exception (memory, the support library) passes to the caller after the mutex was released.
// 8. Any thread may call any of these, one call at a time in effect.

#include <cstdint>
#include <ctime>
#include <list>
#include <string>

#define VANTRIX_SCHEDULER_EXPORT __attribute__((visibility("default")))

// One task of the table.
class TTask {
public:
    TTask() = default;
    virtual ~TTask() = default;

    std::string name;          // the key, compared byte for byte
    time_t nextExecution = 0;  // when it is next due
    time_t lastExecuted = 0;   // when its program was last launched; 0 for never
    std::uint32_t period = 0;  // hours between two due times; 0 runs once
    std::string program;       // path of the program to launch
    std::string parameters;    // passed to the program as one single argument
    std::int32_t paused = 0;   // 0 active, anything else paused; 1 is what is written
};

extern "C" {

// This process's list of tasks, in the order of the file; it owns them. Null while there is no
// add-in object. It is as old as this process's last call, and every call may delete what it points
// to: read it only while no other thread of the process is in a call. Where the scheduler's
// worker runs, read it on the worker only, during a launch: its arguments are the strings of the
// launched task in this list. Never write.
VANTRIX_SCHEDULER_EXPORT extern std::list<TTask*>* gTaskList;

// Adds a task at the end of the table, or rewrites the task of that name in its place;
// `lastExecuted` is kept and the task is no longer paused. Writes and signals, also when the file
// could not be read.
//   start       when it is first due; read once, must not be null
//   period      0 runs once. A step of `period` hours wraps at 2^32 seconds: keep it at 1193046 or
//               less
//   program     path of the program, used unchanged; null is the empty string. It must have no
//               extension, or ".exe": any other aborts the scheduling process when the task is due.
//               The launch cuts every '.', 'e' and 'x' off its end (/usr/bin/free launches
//               /usr/bin/fr)
//   parameters  null is the empty string
// A repeating task with a `start` in the past is rescheduled to its next due time. A new task that
// runs once is kept and runs at the next tick; one that rewrites an existing task is removed.
VANTRIX_SCHEDULER_EXPORT void CreateTask(const char* name, const long* start, unsigned int period,
                                         const char* program, const char* parameters);

// Removes the task. Writes and signals, also for an unknown name; nothing at all if the file cannot
// be read.
VANTRIX_SCHEDULER_EXPORT void DestroyTask(const char* name);

// True when the task exists and its program occurs in the first 1023 bytes of `ps -e | grep
// PROGRAM`, unquoted: a part of another program's name matches, a path hardly ever, an empty
// program always. False for an unknown name. Writes nothing. For a task that exists it releases the
// store mutex once too often, so that from then on two processes can hold it at once; a program
// that has other means to find out should use them.
VANTRIX_SCHEDULER_EXPORT bool IsTaskRunning(const char* name);

}  // extern "C"

// True when a task of that name exists. Writes nothing.
VANTRIX_SCHEDULER_EXPORT bool IsScheduled(const char* name);

// Stores when the task is next due. An unknown name leaves `*next` as it was: preset it. Writes
// nothing.
VANTRIX_SCHEDULER_EXPORT void GetNextExecution(const char* name, long* next);

// Stores when the task's program was last launched, 0 for never. An unknown name leaves `*last` as
// it was: preset it. Writes nothing.
VANTRIX_SCHEDULER_EXPORT void GetLastExecuted(const char* name, long* last);

// Stores the task's period in hours and returns true; for an unknown name stores 0 and returns
// false. Writes nothing.
VANTRIX_SCHEDULER_EXPORT bool GetTaskPeriod(const char* name, unsigned int* period);

// The task is skipped until it is resumed or rewritten. Writes and signals, also for an unknown
// name; nothing at all if the file cannot be read.
VANTRIX_SCHEDULER_EXPORT void PauseTask(const char* name);

// Undoes a pause. A task that came due meanwhile is rescheduled without a run if it repeats, and
// removed if it runs once. Writes and signals, also for an unknown name; nothing at all if the file
// cannot be read.
VANTRIX_SCHEDULER_EXPORT void ResumeTask(const char* name);

// Gives the task another period, in hours: one old period is subtracted from its next due time,
// then new ones are added until it is not in the past (with a new period of 0 the task is removed
// if that time is not in the future). Writes and signals, also for an unknown name, for which it
// returns false; false and nothing at all if the file cannot be read.
VANTRIX_SCHEDULER_EXPORT bool SetTaskPeriod(const char* name, unsigned int period);

// Launches the task's program now, paused or not, and holds the store mutex for the two seconds
// that a launch takes. The task's next due time stays as it is. Without `force` nothing happens
// when IsTaskRunning(name) is true, with that call's effect on the mutex. Writes, but does not
// signal; an unknown name does neither.
VANTRIX_SCHEDULER_EXPORT void ExecuteTaskNow(const char* name, bool force);

// The load and unload hooks, called by the library itself: they build the add-in object if there is
// none, and destroy it if there is one.
VANTRIX_SCHEDULER_EXPORT void SharedLibraryConstructor();
VANTRIX_SCHEDULER_EXPORT void SharedLibraryDestructor();
