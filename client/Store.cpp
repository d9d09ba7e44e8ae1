#include <vxsched/Store.h>

#include <fmt/format.h>

#include <utility>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/DisplayText.h"
#include "base/IsoTime.h"
#include "base/ShellWord.h"
#include "base/Sync.h"
#include "client/Change.h"
#include "client/GiveToRunner.h"
#include "client/LockForChange.h"
#include "client/RunStatus.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "runs/RunEnd.h"
#include "store/Backups.h"
#include "store/CChangeEvent.h"
#include "store/CFormerTable.h"
#include "store/COwnerAccess.h"
#include "store/CSchedule.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/ForgetLaunches.h"
#include "store/Grid.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"
#include "store/ProgramLinks.h"
#include "store/TableFile.h"
#include "store/WorkerState.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// How often an edit is applied again to a task that changes meanwhile.
constexpr int cTries = 20;

TCall CallOf(TCall::EFunction function, TTaskEntry task) {
    TCall call{};
    call.function = function;
    call.task = std::move(task);
    return call;
}

std::vector<TCall> CallsOf(TCall::EFunction function, const std::vector<std::string>& names) {
    std::vector<TCall> calls;
    for (const std::string& name : names) {
        TTaskEntry task;
        task.name = name;
        calls.push_back(CallOf(function, std::move(task)));
    }
    return calls;
}

void RefuseFor(const std::vector<TValidationError>& errors) {
    if (errors.empty())
        return;
    std::string message;
    for (const TValidationError& error : errors) {
        message += (message.empty() ? "" : "\n") + Show(error.message).string;
        if (error.canBeForced)
            message += fmt::format(" (or --force {})", error.Name());
    }
    throw CError(EError::cRefused, message);
}

std::vector<TValidationError> FindUnforced(const fs::path& directory, const TTaskEntry& task,
                                           const TForced& forced) {
    const COwnerAccess ownerAccess(directory);
    std::vector<TValidationError> errors = Validate(task, Now());
    std::erase_if(errors, [&](const TValidationError& error) {
        return error.canBeForced && forced.contains(error.Name());
    });
    return errors;
}

// A program whose path a launch would alter is executed by the runner.
void MakeSchedulable(TTaskEntry& entry) {
    if (!NeedsRunner(entry.program))
        return;
    TJob job;
    job.command = {entry.program, entry.parameter};
    GiveToRunner(entry, job);
}

// Throws CError (cRefused) if the job is over before its due time.
void RequireLaunch(const TTaskEntry& entry, const CSchedule& schedule) {
    if (schedule.IsOver(entry.next))
        throw MakeError(EError::cRefused,
                        "task \"{}\" would never be launched: it ends (--until) before its due "
                        "time, {}",
                        entry.name, UtcTime(entry.next));
}

// Of a task with a calendar, which sets its due time and has no other period in the table. Throws
// CError (cRefused) if the edit sets them, or the calendar cannot be used.
void ScheduleByCalendar(TTaskEntry& entry, const CSchedule& schedule) {
    entry.period = cCalendarPeriod;
    entry.next = schedule.FirstFrom(Now() + std::chrono::seconds(1));
    if (entry.next == cNever && !schedule.IsAtStartup())
        throw MakeError(
            EError::cRefused,
            "task \"{}\" would never be launched: no clock shows a time of its calendar; "
            "change that (--cron)",
            entry.name);
    RequireLaunch(entry, schedule);
}

// Requires that the schedule of an entry can be used.
CSchedule ScheduleOf(const TTaskEntry& entry) {
    CSchedule schedule(entry);
    if (!schedule.Problem().empty())
        throw MakeError(EError::cRefused, "{}", schedule.Problem());
    return schedule;
}

TTaskEntry EntryOf(const TNewTask& task) {
    TTaskEntry entry = {task.name,    task.due,       TTime(), task.period,
                        task.program, task.parameter, false};
    MakeSchedulable(entry);
    const CSchedule schedule = ScheduleOf(entry);
    if (schedule.HasCalendar())
        ScheduleByCalendar(entry, schedule);
    RequireLaunch(entry, schedule);
    return entry;
}

// Throws CError (cNotFound) if the table has no task of that name.
const TTaskEntry& TaskOf(const TTable& table, std::string_view name) {
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw NoSuchTask(name, table);
    return *task;
}

// True if the table has the entry as requested, or as a tick since then has left it: launched and
// rescheduled, or removed after its only run.
bool IsThere(const TTable& table, const TTaskEntry& wanted, TTime since) {
    const TTaskEntry* const found = table.Find(wanted.name);
    // The host launches by the precise clock, which Now() may lag behind.
    if (found == nullptr)
        return wanted.period == 0 && !wanted.paused && wanted.next <= CurrentMoment();
    const bool hasRun = found->last >= since;
    return (found->program == wanted.program || found->program == LaunchedPath(wanted.program)) &&
           found->parameter == wanted.parameter && found->period == wanted.period &&
           found->paused == wanted.paused &&
           (found->next == wanted.next || hasRun || wanted.next < since);
}

// The same of an entry that may have got another name. A task that runs once and that the table has
// under neither name was launched after the edit.
bool IsEdited(const TTable& table, const std::string& formerName, const TTaskEntry& wanted,
              TTime since) {
    return IsThere(table, wanted, since) &&
           (table.Find(wanted.name) != nullptr || table.Find(formerName) == nullptr);
}

// The name of a task that is to be in the table and is not as it should be.
std::optional<std::string> MissingUnless(bool isThere, std::string_view name) {
    return isThere ? std::nullopt : std::optional(std::string(name));
}

// Finds the first of the calls' tasks that is not in the table as `isChanged` wants it; null stands
// for a task that is not there.
template <typename IsChanged>
std::optional<std::string> FindUnchanged(const TOutcome& outcome, const std::vector<TCall>& calls,
                                         const IsChanged& isChanged) {
    for (const TCall& call : calls) {
        if (!isChanged(outcome.table.Find(call.task.name), call))
            return call.task.name;
    }
    return {};
}

// True if the edit changes no field but the name.
bool IsOnlyRename(const TEdit& edit) {
    return edit.name && !edit.due && !edit.period && !edit.program && !edit.parameter &&
           !edit.command;
}

// Has the line of a job name the task, if it names one.
void RenameJob(TTaskEntry& entry) {
    if (!IsRunner(entry.program))
        return;
    try {
        TJob job = ReadJobLine(entry.parameter);
        if (job.task.empty())
            return;
        job.task = entry.name;
        entry.parameter = JobLine(job);
    } catch (const CJobError&) {
        // It has no name that could be found.
    }
}

void EditSchedule(TTaskEntry& entry, const TTaskEntry& former, const TEdit& edit) {
    const bool hasCommand = entry.program != former.program || entry.parameter != former.parameter;
    const CSchedule schedule = hasCommand ? ScheduleOf(entry) : CSchedule(entry);
    if (schedule.HasCalendar() && (edit.due || edit.period))
        throw MakeError(EError::cRefused,
                        "task \"{}\" is launched by its calendar, which sets its due times; change "
                        "that (--cron), or remove it (--cron \"\") for a period",
                        entry.name);
    if (!schedule.HasCalendar() && CSchedule(former).HasCalendar() && !edit.period)
        throw MakeError(EError::cRefused,
                        "without its calendar task \"{}\" has no period; give it one (--every)",
                        entry.name);
    // A launch that is due stays so.
    const bool isDue = !entry.paused && entry.next <= Now() && schedule.IsLaunchTime(entry.next);
    const bool isOff = hasCommand || entry.paused || !schedule.IsLaunchTime(entry.next);
    if (schedule.HasCalendar() && !isDue && isOff)
        ScheduleByCalendar(entry, schedule);
    else if (entry.paused && StepOf(entry.period) != std::chrono::seconds(0))
        entry.next = schedule.FirstFrom(Now());
    if (hasCommand || edit.due)
        RequireLaunch(entry, schedule);
}

// The entry after an edit. Throws CError (cRefused) on a validation error.
TTaskEntry After(const fs::path& directory, TTaskEntry entry, const TEdit& edit,
                 const TForced& forced) {
    const TTaskEntry former = entry;
    entry.name = edit.name.value_or(entry.name);
    entry.next = edit.due.value_or(entry.next);
    entry.period = edit.period.value_or(entry.period);
    entry.program = edit.program.value_or(entry.program);
    entry.parameter = edit.parameter.value_or(entry.parameter);
    if (edit.command)
        edit.command(entry);
    const bool hasProgram = edit.program || entry.program != former.program;
    const bool hasParameter = edit.parameter || entry.parameter != former.parameter;
    if (!IsOnlyRename(edit))
        entry.program = RealProgram(directory, entry.program);
    if (entry.program != former.program)
        MakeSchedulable(entry);
    if (edit.name)
        RenameJob(entry);
    if (!IsOnlyRename(edit))
        EditSchedule(entry, former, edit);
    std::vector<TValidationError> errors = FindUnforced(directory, entry, forced);
    // Fields that the edit leaves alone are no reason to refuse it.
    std::erase_if(errors, [&](const TValidationError& error) {
        return (IsOnlyRename(edit) && !error.IsAboutName()) ||
               (!hasProgram && !hasParameter &&
                (error.IsAboutProgram() || error.kind == TValidationError::cNoJob)) ||
               (!hasProgram && error.IsAboutProgram() && !IsRunner(entry.program)) ||
               (!hasParameter && error.kind == TValidationError::cParameterTooLong) ||
               (!entry.paused && !edit.due && !edit.period &&
                error.kind == TValidationError::cPastDue);
    });
    RefuseFor(errors);
    return entry;
}

}  // namespace

CStore::CStore(TStoreOptions storeOptions) : options(std::move(storeOptions)) {}

TTable CStore::Read() const {
    return ReadTable(options.directory, options.lockTimeout);
}

// To be called before a change that depends on the table.
static TTable ReadForChange(const CStore& store) {
    return DoBeforeChange([&] { return store.Read(); });
}

bool CStore::Wake() const {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (!scheduler || !scheduler->sharesStore)
        return false;
    WakeSchedulingProcess();
    return true;
}

std::vector<TValidationError> CStore::Check(const TNewTask& task, const TForced& forced) const {
    return FindUnforced(options.directory, EntryOf(task), forced);
}

// The call that makes a task; `seen`, if not null, is the one that it is to replace, as that must
// still be.
static TCall CreateCall(const TTaskEntry& entry, bool replace, const TTaskEntry* seen) {
    TCall call = CallOf(TCall::cCreate, entry);
    call.mustExist = false;
    call.mustBeNew = !replace;
    call.mustBeAsSeen = seen != nullptr;
    if (seen != nullptr)
        call.seen = *seen;
    // CreateTask reschedules or removes a task whose due time is past by the clock. A task that is
    // due now must not meet that fate a second later; a repeating one that is past is to be
    // rescheduled.
    call.keepDue = entry.period == 0 || entry.next >= Now() - cJustPast;
    return call;
}

static TTaskEntry TryCreate(const TStoreOptions& options, TTaskEntry entry, bool replace,
                            const TTaskEntry* seen) {
    const TTime since = Now();
    const TCall call = CreateCall(entry, replace, seen);
    const TOutcome outcome = MakeChange(
        options, {{call}, [&](const TOutcome& made) {
                      return MissingUnless(IsThere(made.table, entry, since), entry.name);
                  }});
    const TTaskEntry* const made = outcome.table.Find(entry.name);
    return made != nullptr ? *made : entry;
}

// Whether `first` was launched for its due time since it was read. `found` is the task that has its
// name now; null if none has.
static bool IsLaunchedSince(const TTaskEntry& first, const TTaskEntry* found) {
    return found != nullptr ? found->last > first.last
                            : first.period == 0 && first.next <= CurrentMoment();
}

TTaskEntry CStore::CheckCreate(const TNewTask& task, bool replace, const TForced& forced) const {
    RefuseFor(Check(task, forced));
    TTaskEntry entry = EntryOf(task);
    CheckChange(options, {CreateCall(entry, replace, nullptr)});
    return entry;
}

TTaskEntry CStore::Create(const TNewTask& task, bool replace, const TForced& forced) const {
    RefuseFor(Check(task, forced));
    TTaskEntry entry = EntryOf(task);
    const auto find = [&] {
        const TTable table = ReadForChange(*this);
        const TTaskEntry* const found = table.Find(task.name);
        return found != nullptr ? std::optional(*found) : std::nullopt;
    };
    const std::optional<TTaskEntry> first = replace ? find() : std::nullopt;
    if (!first || first->next != entry.next)
        return TryCreate(options, entry, replace, nullptr);
    // As in Edit(): a tick may launch the task for the time that the new one names. That launch is then
    // the new one's, which is due a period later, or has had its only run.
    std::optional<TTaskEntry> seen = first;
    for (int tries = cTries;; --tries) {
        try {
            return TryCreate(options, entry, replace, seen ? &*seen : nullptr);
        } catch (const CChangedMeanwhile&) {
            if (tries == 0)
                throw;
        }
        seen = find();
        if (entry.next != first->next || !IsLaunchedSince(*first, seen ? &*seen : nullptr))
            continue;
        if (entry.period == 0 && !seen)
            return entry;
        entry.next = entry.period == 0
                         ? seen->next
                         : CSchedule(entry).FirstFrom(entry.next + std::chrono::seconds(1));
    }
}

// The call that makes `entry` of the task that was seen.
static TCall EditCall(const TTaskEntry& seen, const TTaskEntry& entry) {
    TCall call = CallOf(TCall::cCreate, entry);
    call.task.name = seen.name;
    const bool isRenamed = entry.name != seen.name;
    if (isRenamed)
        call.newName = entry.name;
    // CreateTask would reschedule or remove a task that is due; an edit must not cost it its run.
    call.keepDue = true;
    call.mustBeAsSeen = true;
    call.seen = seen;
    // CreateTask makes an active task, also in place of a paused one, and knows no former name.
    call.inOneStep = entry.paused || isRenamed;
    return call;
}

TTaskEntry CStore::Edited(std::string_view name, const TEdit& edit, const TForced& forced) const {
    const COwnerAccess ownerAccess(options.directory);
    const TTable table = ReadForChange(*this);
    const TTaskEntry& seen = TaskOf(table, name);
    TTaskEntry entry = After(options.directory, seen, edit, forced);
    CheckChange(options, {EditCall(seen, entry)});
    return entry;
}

TTaskEntry CStore::Edit(std::string_view name, const TEdit& edit, const TForced& forced) const {
    if (IsOnlyRename(edit) && *edit.name == name)
        return Get(name);
    const TTaskEntry first = Get(name);
    TTaskEntry seen = first;
    TEdit wanted = edit;
    // A tick may launch and reschedule the task between the read and the change. An edit of the old
    // entry would undo that, and the task would run twice.
    for (int tries = cTries;; --tries) {
        try {
            return TryEdit(seen, wanted, forced);
        } catch (const CChangedMeanwhile&) {
            if (tries == 0)
                throw;
        }
        seen = Get(name);
        // Launched meanwhile for the due time that the edit names, the task is not due for it again.
        if (wanted.due == first.next && seen.last > first.last)
            wanted.due.reset();
    }
}

TTaskEntry CStore::TryEdit(const TTaskEntry& seen, const TEdit& edit, const TForced& forced) const {
    TTaskEntry entry = After(options.directory, seen, edit, forced);
    const TTime since = Now();
    MakeChange(options, {{EditCall(seen, entry)}, [&](const TOutcome& made) {
                             return MissingUnless(IsEdited(made.table, seen.name, entry, since),
                                                  seen.name);
                         }});
    return entry;
}

void CStore::CheckRemove(const std::vector<std::string>& names) const {
    CheckChange(options, CallsOf(TCall::cDestroy, names));
}

void CStore::Remove(const std::vector<std::string>& names) const {
    const std::vector<TCall> calls = CallsOf(TCall::cDestroy, names);
    const auto isGone = [](const TTaskEntry* task, const TCall&) { return task == nullptr; };
    MakeChange(options,
               {calls, [&](const TOutcome& made) { return FindUnchanged(made, calls, isGone); }});
}

void CStore::CheckPause(const std::vector<std::string>& names) const {
    CheckChange(options, CallsOf(TCall::cPause, names));
}

void CStore::Pause(const std::vector<std::string>& names) const {
    const std::vector<TCall> calls = CallsOf(TCall::cPause, names);
    const auto isPaused = [](const TTaskEntry* task, const TCall&) {
        return task != nullptr && task->paused;
    };
    MakeChange(options,
               {calls, [&](const TOutcome& made) { return FindUnchanged(made, calls, isPaused); }});
}

// The add-in would move a past due time along the grid; that of a task with a calendar is set by it.
static std::vector<TCall> ResumeCalls(const TTable& table, const std::vector<std::string>& names,
                                      const TForced& forced) {
    std::vector<TCall> calls = CallsOf(TCall::cResume, names);
    for (TCall& call : calls) {
        const TTaskEntry* const task = table.Find(call.task.name);
        call.mayRemove = forced.contains("past-due");
        if (task == nullptr)
            continue;
        const CSchedule schedule(*task);
        if (!schedule.HasCalendar())
            continue;
        TTaskEntry entry = *task;
        entry.paused = false;
        ScheduleByCalendar(entry, schedule);
        call = EditCall(*task, entry);
    }
    return calls;
}

void CStore::CheckResume(const std::vector<std::string>& names, const TForced& forced) const {
    CheckChange(options, ResumeCalls(ReadForChange(*this), names, forced));
}

void CStore::Resume(const std::vector<std::string>& names, const TForced& forced) const {
    const auto isResumed = [](const TTaskEntry* task, const TCall& call) {
        return task == nullptr ? call.mayRemove : !task->paused;
    };
    for (int tries = cTries;; --tries) {
        const std::vector<TCall> calls = ResumeCalls(ReadForChange(*this), names, forced);
        try {
            MakeChange(options, {calls, [&](const TOutcome& made) {
                                     return FindUnchanged(made, calls, isResumed);
                                 }});
            return;
        } catch (const CChangedMeanwhile&) {
            if (tries == 0)
                throw;
        }
    }
}

TTaskEntry CStore::WithPeriod(std::string_view name, std::uint32_t hours,
                              const TForced& forced) const {
    TTaskEntry entry = Edited(name, {.period = hours}, forced);
    if (hours != 0)
        CheckChange(options, {CallOf(TCall::cSetPeriod, entry)});
    return entry;
}

TTaskEntry CStore::SetPeriod(std::string_view name, std::uint32_t hours,
                             const TForced& forced) const {
    TTaskEntry entry = WithPeriod(name, hours, forced);
    // SetTaskPeriod would take a task that now runs once for a missed one and remove it.
    if (hours == 0)
        return Edit(name, {.period = hours}, forced);
    const std::vector<TCall> calls = {CallOf(TCall::cSetPeriod, entry)};
    const auto hasPeriod = [&](const TTaskEntry* task, const TCall&) {
        return task != nullptr && task->period == hours;
    };
    const TOutcome outcome = MakeChange(options, {calls, [&](const TOutcome& made) {
                                                      return FindUnchanged(made, calls, hasPeriod);
                                                  }});
    return *outcome.table.Find(name);
}

static TCall RunCall(const fs::path& directory, const TTaskEntry& task, bool force) {
    const COwnerAccess ownerAccess(directory);
    std::vector<TValidationError> errors = Validate(task, Now());
    // The due time and the period do not matter to a run outside the schedule. A relative path is
    // resolved in the store's directory, where the change process works like the host.
    std::erase_if(errors, [](const TValidationError& error) {
        return (!error.IsAboutProgram() && error.kind != TValidationError::cParameterTooLong &&
                error.kind != TValidationError::cNoJob) ||
               error.kind == TValidationError::cRelativePath;
    });
    // The --force of a run skips another check, so none of these can be forced.
    for (TValidationError& error : errors) {
        if (std::exchange(error.canBeForced, false))
            error.message +=
                fmt::format(" (vxsched edit {} --program PROGRAM)", ShellWord(task.name));
    }
    RefuseFor(errors);
    TCall call = CallOf(TCall::cExecute, task);
    call.mustNotRun = !force;
    return call;
}

// Waits for the end of a run, without limit, and returns its wait status. Throws as
// FindWaitStatus().
static int WaitForStatus(const std::filesystem::path& directory, const TRun& run) {
    const COwnerAccess ownerAccess(directory);
    if (!run.id.empty())
        WaitForRun(directory, run.id);
    return FindWaitStatus(directory, run);
}

void CStore::CheckRun(std::string_view name, bool force) const {
    CheckChange(options, {RunCall(options.directory, Get(name), force)});
}

TRun CStore::Run(std::string_view name, bool force, bool waitForEnd,
                 const std::function<void(const TRun&)>& onLaunch, int output) const {
    const TCall call = RunCall(options.directory, Get(name), force);
    const auto isAttempted = [](const TOutcome& made) {
        return made.run.process != 0 || made.launchError || made.launchUnknown;
    };
    const TOutcome outcome = MakeChange(
        options, {{call},
                  [&](const TOutcome& made) { return MissingUnless(isAttempted(made), name); },
                  onLaunch,
                  output});
    if (outcome.launchUnknown)
        throw MakeError(EError::cUnknown,
                        "whether \"{}\" was launched is not known: {}; see vxsched history {}",
                        name, *outcome.launchUnknown, ShellWord(name));
    if (outcome.run.process == 0)
        throw MakeError(EError::cFailed, "cannot launch \"{}\": {}; check the program",
                        call.task.program, outcome.launchError.value_or(""));
    TRun run = outcome.run;
    if (waitForEnd)
        run.status = WaitForStatus(options.directory, run);
    return run;
}

void CStore::ReplaceAll(const std::vector<TTaskEntry>& tasks,
                        const std::function<void(const std::string&)>& canReplace) const {
    RequireSharedStore(options);
    std::vector<std::string> warnings;
    while (!TryReplaceAll(tasks, canReplace, warnings))
        WaitForTheTicksEnd(options);
    WakeAfterChange(options);
    for (const std::string& warning : warnings)
        Warn(options, warning);
}

namespace {

// Keeps the message of the first flush that fails on this thread while the object lives.
class CSyncFailure {
public:
    CSyncFailure() {
        gMessage = &message;
        SetSyncFailureListener(Note);
    }
    ~CSyncFailure() { gMessage = nullptr; }
    CSyncFailure(const CSyncFailure&) = delete;
    CSyncFailure& operator=(const CSyncFailure&) = delete;

    const std::string& Message() const { return message; }

private:
    static void Note(const std::string& failure) {
        if (gMessage != nullptr && gMessage->empty())
            *gMessage = failure;
    }

    static inline thread_local std::string* gMessage = nullptr;
    std::string message;
};

}  // namespace

// Opens the event that announces the replacement. Throws CError.
static CChangeEvent OpenChangeEvent() {
    try {
        return CChangeEvent();
    } catch (const CError& error) {
        throw MakeError(error.Code(), "{}; nothing was changed", error.what());
    }
}

// False, without a change, if a tick is under way, whose end would overwrite the new table. The
// caller reports `warnings` after the locks are released: their reader may take its time.
bool CStore::TryReplaceAll(const std::vector<TTaskEntry>& tasks,
                           const std::function<void(const std::string&)>& canReplace,
                           std::vector<std::string>& warnings) const {
    const COwnerAccess ownerAccess(options.directory);
    // Lock order: directory lock (hosts only), writer lock, store mutex. The writer lock keeps other
    // processes from loading the add-in, which would set the mutex free.
    const auto writerLock = LockForChange<CWriterLock>(options.directory, options.lockTimeout);
    const auto mutexLock = LockForChange<CStoreMutexLock>(options.lockTimeout, writerLock);
    if (IsTickUnderWay(options.directory))
        return false;
    CChangeEvent changeEvent = OpenChangeEvent();
    const CSyncFailure syncFailure;
    if (options.onBegin)
        options.onBegin();
    const std::string bytes = ReadTableBytes(options.directory);
    if (canReplace)
        canReplace(bytes);
    // A damaged one must not replace a valid backup. Nor does it show which due times are set anew:
    // its repair may bring back one whose launch it has lost.
    if (IsValidTable(bytes)) {
        KeepBeforeChange(options.directory, bytes);
        ForgetLaunches(options.directory, DecodeTable(bytes, Now()).tasks, tasks);
    }
    // Before the mutex is released, or a tick may save its old list over the new table: before the
    // replacement, since this process may be killed after it, and after it, since the load of a direct
    // client lets a tick in that takes the first one for the former table.
    changeEvent.Announce();
    ReplaceMerged(options.directory, bytes, EncodeTable(tasks), TryToReplaceTable);
    warnings = {changeEvent.Announce(), syncFailure.Message()};
    return true;
}

TTaskEntry CStore::Get(std::string_view name) const {
    return TaskOf(Read(), name);
}

}  // namespace vxsched
