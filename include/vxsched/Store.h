#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/StoreOptions.h>
#include <vxsched/Table.h>
#include <vxsched/Validation.h>

namespace vxsched {

// The names of validation errors to ignore ("missing-program", see TValidationError::Name()). Names
// of errors that cannot be forced have no effect.
using TForced = std::set<std::string, std::less<>>;

struct TNewTask {
    std::string name;
    TTime due;
    std::uint32_t period = 0;  // hours; 0 runs once
    std::string program;       // if the add-in cannot launch it by that path, it is executed by
                               // the runner, which the table then has as the program
    std::string parameter;     // the program's single argument
};

// An edit of a task. A member without a value leaves that field as it is.
struct TEdit {
    std::optional<TTime> due = {};
    std::optional<std::uint32_t> period = {};
    std::optional<std::string> program = {};
    std::optional<std::string> parameter = {};
    std::optional<std::string> name = {};  // the new one; also that in the line of a job for vxrun
    // If set, changes program and parameter, which are those of the task as it is then; instead of
    // the two above. It may be called several times, and throw.
    std::function<void(TTaskEntry& task)> command = {};
};

// A launched program. If the launch fails, CError is thrown instead.
struct TRun {
    pid_t process = 0;
    std::string id = {};             // of the run, as in the history; empty if it has no runner
    std::optional<int> status = {};  // the wait status, as of waitpid(); empty if not waited for
};

// The tasks of one directory.
//
// Reading has no effect on the store. A change is made in a child process (vxsched-change), so that a
// caller that is stopped or killed keeps no lock: as the add-in's function would make it, in one save.
// A run is made through the add-in, whose hang or crash cannot reach the caller either. Rules:
//
// 1. Locks. Each call takes the locks that it needs: the writer lock, then the store mutex, each
//    with a wait of at most TStoreOptions::lockTimeout. The caller must hold neither. Holders are
//    waited for, never interrupted, whether a tick or another client.
// 2. Blocking. Check() and Wake() do not block. Read() and CheckRun() wait for the store mutex. A change also has the wait of rule 3, and is made in a child process. The
//    child process is killed when it sends no message for 2 x the lock timeout + 10 s, for a run +
//    10 s. The table is then checked under both locks.
// 3. Due tasks. While an active task is due, a change first wakes the scheduling process and waits
//    until it has launched the due tasks: at most lockTimeout without progress and 10 x lockTimeout
//    in all, and again if other tasks have come due by then. Without a scheduling process the
//    change throws cNoScheduler, unless TStoreOptions::evenIfDue is set: the due tasks then stay
//    due.
// 4. Failure. The calls throw CError, apart from std::bad_alloc. A call that throws has changed
//    nothing unless its message states otherwise: if the change process fails half-way and leaves a
//    damaged table, the backup from before the change is restored. cDamaged: the table is damaged,
//    or loading it would hang a process; it is left as it is. cBusy: a timeout of rules 1 to 3.
//    cNoAccess: this user may not read or write the store. cNoScheduler: see rule 3, or the
//    scheduling process runs in another IPC namespace. cFailed: a system call or the add-in failed.
//    Any call may throw these; cRefused and cNotFound are stated at each function.
// 5. After a change the table is read back and compared, and the scheduling process is woken, so
//    that the change takes effect at once. If it cannot be notified, the call succeeds, and
//    TStoreOptions::onWarning is called.
// 6. Thread-safety: an object holds only its options; threads may use distinct objects freely, and
//    share one that none of them assigns to. Calls from several threads or processes take effect
//    one after the other. The caller may ignore SIGCHLD.
class VXSCHED_PUBLIC CStore {
public:
    explicit CStore(TStoreOptions storeOptions);

    // Reads the table, as ReadTable() does. The programs are as in the table, maybe links.
    TTable Read() const;

    // Wakes the scheduling process, so that it checks for due tasks at once. Returns false if there
    // is none in this IPC namespace.
    bool Wake() const;

    // Validates a task without reading the table. Returns the validation errors that are not in
    // `forced`; empty if Create() would accept the task. Under the superuser the program is checked
    // with the permissions of the owner of `files/`, as whom the scheduling process launches it.
    std::vector<TValidationError> Check(const TNewTask& task, const TForced& forced) const;

    // Adds an active task at the end of the table. If it is a job for vxrun with a calendar, that sets
    // due time and period, whatever `task` has. With `replace` a task of the same name keeps its
    // position in the table and its last launch, and gets all other fields; if that had the same
    // due time, and is launched for it while the call waits, the new one is not launched for it
    // again: one that runs once is not made. A repeating task whose due time is past by more than
    // cJustPast is rescheduled to its next one. Returns the entry as it is in the table. Throws
    // cRefused on a validation error that is not forced, and without `replace` if the name is
    // taken.
    TTaskEntry Create(const TNewTask& task, bool replace, const TForced& forced = {}) const;

    // Changes a task and returns the new entry. A calendar of its job sets the due time; an edit of due
    // time or period is refused then. A paused task stays paused, and if it repeats and
    // its due time is past, it is rescheduled. An active task with a past due time is due: its
    // program runs at once. A program that is not edited is not validated; one that is launched
    // through a link of an earlier version is executed by the runner from then on. If the task changes
    // meanwhile, the edit is applied to the changed task, without its due time if the task was
    // launched for that meanwhile. Throws cNotFound, cRefused on a validation error that is not
    // forced, and cBusy if the task keeps changing.
    //
    // A task that gets a new name keeps its position and all fields that are not edited; the table
    // has it under either name at any moment. Launches under the former name stay recorded by that.
    // The own name is no change. Throws cRefused also if the new name is taken or invalid, if a
    // launch of the task is owed, and, with evenIfDue, if the active task is due itself and remains
    // so.
    TTaskEntry Edit(std::string_view name, const TEdit& edit, const TForced& forced = {}) const;

    // These three change all of the named tasks in one step, or none if a name is unknown (cNotFound).
    // CChanges makes different changes in one step.
    void Remove(const std::vector<std::string>& names) const;
    void Pause(const std::vector<std::string>& names) const;
    // A task that runs once and whose due time passed while it was paused would be removed without
    // a run. Throws cRefused for such a task, unless "past-due" is forced. A repeating one is
    // rescheduled.
    void Resume(const std::vector<std::string>& names, const TForced& forced = {}) const;

    // Changes a task's period to `hours`, counted on from its previous due time, and returns the
    // new entry. 0 keeps the next due time and makes the task run once. Throws cNotFound, and
    // cRefused on a validation error that is not forced or, with evenIfDue, if the active task is
    // due itself.
    TTaskEntry SetPeriod(std::string_view name, std::uint32_t hours,
                         const TForced& forced = {}) const;

    // Launches the task's program now, outside the schedule, also if the task is paused; the next
    // due time stays. The host launches it as it launches the due tasks; without one, or if the
    // scheduling process is another program, the change process launches it, with an environment of
    // its own (docs/operating.md). It has the task's name as VXSCHED_TASK, no VXSCHED_DUE, and
    // nothing of the caller's. Its output and its end are recorded as those of any run. With
    // `waitForEnd` the call waits for the program's end without limit. `onLaunch`, if set, is
    // called right after the launch, on the calling thread; it must not throw. `output`, if it is
    // not -1, is one end of a socketpair(AF_UNIX, SOCK_STREAM), which the caller keeps: it gets all
    // that the program writes, until the run is recorded. The program waits for a reader that is
    // slower than it is, and goes on without one that closes the other end. Throws cNotFound,
    // cRefused if the program cannot be launched as it is named or, without `force`, if a run of
    // the task or its program is running, cFailed if the launch failed or its end is not known, and
    // cUnknown if the host ended before it reported whether the program was launched.
    TRun Run(std::string_view name, bool force, bool waitForEnd,
             const std::function<void(const TRun&)>& onLaunch = {}, int output = -1) const;

    // Throws what Run() would throw now, without a launch.
    void CheckRun(std::string_view name, bool force) const;

    // Replaces the whole table by `tasks` in one step, and announces the change to the scheduling
    // process. Not through the add-in: the file is replaced under the writer lock and the store
    // mutex (waits of rule 1), due tasks are not waited for, and the tasks are not validated, which
    // is up to the caller. The previous table becomes the backup, unless it was damaged. If it was
    // not, a due time that a task did not have in it counts as set anew: the task is launched at it,
    // also if it was launched at it before.
    // `canReplace`, if set, is called with the previous bytes while both locks are held, and before
    // `tasks` is read, which it may still change; an exception that it throws leaves the table as
    // it is and passes to the caller.
    void ReplaceAll(const std::vector<TTaskEntry>& tasks,
                    const std::function<void(const std::string& bytes)>& canReplace = {}) const;

    const TStoreOptions& Options() const { return options; }

private:
    TTaskEntry Get(std::string_view name) const;
    bool TryReplaceAll(const std::vector<TTaskEntry>& tasks,
                       const std::function<void(const std::string& bytes)>& canReplace,
                       std::vector<std::string>& warnings) const;

    TStoreOptions options;
};

}  // namespace vxsched
