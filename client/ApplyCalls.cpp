#include "client/ApplyCalls.h"

#include <algorithm>
#include <utility>

#include <vxsched/Error.h>
#include "base/ShellWord.h"
#include "client/TaskSchedule.h"
#include "runs/CRunningTasks.h"
#include "store/Grid.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"
#include "store/OwedLaunches.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

bool IsDue(const TTaskEntry& task) {
    return task.next <= Now() + cAboutToBeDue;
}

void CheckName(CNamedTasks& tasks, const TCall& call) {
    const TTaskEntry* const found = tasks.Find(call.task.name);
    if (found != nullptr && call.mustBeNew)
        throw MakeError(
            EError::cRefused,
            "a task \"{}\" already exists; replace it (--replace), edit it, or choose another name",
            call.task.name);
    if (found == nullptr && call.mustExist)
        throw NoSuchTask(call.task.name, {tasks.Tasks(), {}});
    if (!call.newName.empty() && tasks.Find(call.newName) != nullptr)
        throw MakeError(EError::cRefused,
                        "a task \"{}\" already exists; choose another name, or remove that one",
                        call.newName);
}

// The host makes an owed launch only while the table has its task, by the name under which it came
// due, and cancels it otherwise. That of a task that runs once is made without the task.
void CheckOwed(const fs::path& directory, const TCall& call) {
    if (call.newName.empty())
        return;
    for (const TOwedLaunch& launch : FindOwedLaunches(directory)) {
        if (launch.task == call.task.name && launch.period != 0)
            throw MakeError(EError::cRefused,
                            "a launch of task \"{}\" is owed, since the system had no process for "
                            "it when it came due, and a new name would cancel it; try again once "
                            "the host has made it (vxsched show)",
                            call.task.name);
    }
}

void CheckState(const TTaskEntry& task, const TCall& call, bool evenIfDue) {
    if (call.function == TCall::cResume && task.paused && task.period == 0 && IsDue(task) &&
        !call.mayRemove)
        throw MakeError(EError::cRefused,
                        "task \"{}\" runs once and its due time is past: resuming it would remove "
                        "it without a run; give it a new due time first (vxsched edit {} --at "
                        "TIME), or have it removed (--force past-due)",
                        task.name, ShellWord(task.name));
    if (call.function == TCall::cSetPeriod && evenIfDue && !task.paused && IsDue(task))
        throw MakeError(EError::cRefused,
                        "task \"{}\" is due itself: setting its period would reschedule it without "
                        "a run; edit its period instead (vxsched edit {} --every PERIOD), which "
                        "leaves it due",
                        task.name, ShellWord(task.name));
    // Launch record and launch intent are of the task's name and due time.
    if (!call.newName.empty() && evenIfDue && !task.paused && IsDue(task) &&
        call.task.next == task.next)
        throw MakeError(EError::cRefused,
                        "task \"{}\" is due itself: whether its program was launched already is "
                        "recorded by its name; start a scheduling process first, and leave out "
                        "--even-if-due, or give the task a new due time as well",
                        task.name);
}

void CheckNotRunning(const fs::path& directory, const TTaskEntry& task, const TCall& call) {
    if (!call.mustNotRun)
        return;
    const std::vector<pid_t> running = CRunningTasks(directory).Find(task);
    if (!running.empty())
        throw MakeError(EError::cRefused,
                        "task \"{}\" is running already, as process {}; wait for its end, or "
                        "launch a second run (--force)",
                        task.name, running.front());
}

// As the add-in: a task that runs once and whose due time is past is removed.
void Resume(CNamedTasks& tasks, TTaskEntry& task) {
    if (!task.paused)
        return;
    task.paused = false;
    const CSchedule schedule(task);
    if (schedule.HasCalendar())
        ScheduleByCalendar(task, schedule);
    else if (task.period == 0 && task.next <= Now())
        tasks.Remove(task.name);
    else
        MoveToGrid(task, Now());
}

// Counts from the former due time, and not that again: the task was launched for it.
void SetPeriod(TTaskEntry& task, std::uint32_t period) {
    using std::chrono::seconds;
    const seconds formerStep = StepOf(task.period);
    const TTime earliest =
        formerStep == seconds(0) ? Now() : std::max(Now(), task.next - formerStep + seconds(1));
    task.next -= formerStep;
    task.period = period;
    MoveToGrid(task, earliest);
}

}  // namespace

bool CAppliedCalls::Apply(const fs::path& directory, const TCall& call, bool evenIfDue) {
    CheckName(tasks, call);
    CheckOwed(directory, call);
    TTaskEntry* const task = tasks.Find(call.task.name);
    if (task != nullptr) {
        CheckState(*task, call, evenIfDue);
        CheckNotRunning(directory, *task, call);
    }
    if (call.mustBeAsSeen && (task == nullptr || *task != call.seen))
        return false;
    switch (call.function) {
        case TCall::cCreate:
            Create(call, task);
            break;
        case TCall::cDestroy:
            tasks.Remove(call.task.name);
            break;
        case TCall::cPause:
            task->paused = true;
            break;
        case TCall::cResume:
            Resume(tasks, *task);
            break;
        case TCall::cSetPeriod:
            SetPeriod(*task, call.task.period);
            break;
        case TCall::cExecute:
            break;
    }
    return true;
}

void CAppliedCalls::Create(const TCall& call, TTaskEntry* task) {
    TTaskEntry entry = call.task;
    entry.last = task != nullptr ? task->last : TTime();
    if (!call.keepDue)
        MoveToGrid(entry, Now());
    if (task != nullptr)
        *task = entry;
    else
        tasks.Add(entry);
    if (!call.newName.empty()) {
        tasks.Rename(call.task.name, call.newName);
        renames.push_back({call.task.name, call.newName});
        entry.name = call.newName;
    }
    made.push_back(std::move(entry));
}

}  // namespace vxsched
