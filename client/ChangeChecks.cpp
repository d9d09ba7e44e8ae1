#include "client/ChangeChecks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "base/ShellWord.h"
#include "runs/CRunningTasks.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"
#include "store/OwedLaunches.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

bool IsDue(const TTaskEntry& task) {
    return task.next <= Now() + cAboutToBeDue;
}

void CheckAccess(const std::filesystem::path& directory) {
    const std::filesystem::path file = TableFile(directory);
    if (faccessat(AT_FDCWD, file.c_str(), R_OK | W_OK, AT_EACCESS) == -1 && errno != ENOENT)
        throw SystemError("cannot write " + file.string(), errno);
}

void CheckHarm(const TTable& table) {
    for (const TProblem& problem : table.problems) {
        if (problem.kind != TProblem::cUnusual)
            throw MakeError(EError::cDamaged, "{}; repair the table first (vxsched repair)",
                            problem.message);
    }
}

void CheckNewName(const TTable& table, const std::string& name) {
    if (table.Find(name) != nullptr)
        throw MakeError(EError::cRefused,
                        "a task \"{}\" already exists; choose another name, or remove that one",
                        name);
}

void CheckName(const TTable& table, const TCall& call) {
    const TTaskEntry* const found = table.Find(call.task.name);
    if (found != nullptr && call.mustBeNew)
        throw MakeError(
            EError::cRefused,
            "a task \"{}\" already exists; replace it (--replace), edit it, or choose another name",
            call.task.name);
    if (found == nullptr && call.mustExist)
        throw NoSuchTask(call.task.name, table);
    if (!call.newName.empty())
        CheckNewName(table, call.newName);
}

// The host makes an owed launch only while the table has its task, by the name under which it came
// due, and cancels it otherwise. That of a task that runs once is made without the task.
void CheckOwed(const std::filesystem::path& directory, const TCall& call) {
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
    if (call.function == TCall::cResume && task.period == 0 && IsDue(task) && !call.mayRemove)
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

void CheckNotRunning(const std::filesystem::path& directory, const TTaskEntry& task,
                     const TCall& call) {
    if (!call.mustNotRun)
        return;
    const std::vector<pid_t> running = CRunningTasks(directory).Find(task);
    if (!running.empty())
        throw MakeError(EError::cRefused,
                        "task \"{}\" is running already, as process {}; wait for its end, or "
                        "launch a second run (--force)",
                        task.name, running.front());
}

}  // namespace

void CheckCalls(const std::filesystem::path& directory, const TTable& table,
                const TRequest& request) {
    CheckAccess(directory);
    CheckHarm(table);
    for (const TCall& call : request.calls) {
        CheckName(table, call);
        CheckOwed(directory, call);
        const TTaskEntry* const task = table.Find(call.task.name);
        if (task == nullptr)
            continue;
        CheckState(*task, call, request.evenIfDue);
        CheckNotRunning(directory, *task, call);
    }
}

const TTaskEntry* FindDue(const TTable& table, const TRequest& request) {
    if (request.evenIfDue)
        return nullptr;
    const auto due = std::find_if(table.tasks.begin(), table.tasks.end(),
                                  [](const auto& task) { return !task.paused && IsDue(task); });
    return due == table.tasks.end() ? nullptr : &*due;
}

const TCall* FindChanged(const TTable& table, const TRequest& request) {
    for (const TCall& call : request.calls) {
        const TTaskEntry* const task = table.Find(call.task.name);
        if (call.mustBeAsSeen && (task == nullptr || *task != call.seen))
            return &call;
    }
    return nullptr;
}

}  // namespace vxsched
