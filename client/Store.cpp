#include <vxsched/Store.h>

#include <algorithm>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "client/Change.h"
#include "client/ChangeChecks.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/Grid.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

constexpr int cTries = 20;

std::string Quoted(std::string_view text) {
    return '"' + std::string(text) + '"';
}

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
    std::string text;
    for (const TValidationError& error : errors) {
        text += (text.empty() ? "" : "\n") + error.text;
        if (error.canBeForced)
            text += " (or force " + Quoted(error.Name()) + ')';
    }
    throw CError(EError::cRefused, text);
}

void Drop(std::vector<TValidationError>& errors,
          const std::function<bool(const TValidationError&)>& isPassedOver) {
    errors.erase(std::remove_if(errors.begin(), errors.end(), isPassedOver), errors.end());
}

std::vector<TValidationError> FindUnforced(const TTaskEntry& task, EProgram how,
                                           const TForced& forced) {
    std::vector<TValidationError> errors = Validate(task, Now(), how);
    Drop(errors, [&](const TValidationError& error) {
        return error.canBeForced && forced.contains(error.Name());
    });
    return errors;
}

EProgram HowToLaunch(const std::string& program) {
    return program.starts_with('/') ? EProgram::cThroughLink : EProgram::cAsNamed;
}

TTaskEntry EntryOf(const TNewTask& task) {
    return {task.name, task.start, TTime(), task.period, task.program, task.parameter, false};
}

// As the change process has put it into the table.
std::string ProgramOf(const TTaskEntry& entry, const TOutcome& outcome) {
    return outcome.program.empty() ? entry.program : outcome.program;
}

// A damaged table does not take the place of the sound copy from before.
bool IsTable(const std::string& bytes) {
    try {
        DecodeTable(bytes, Now());
        return true;
    } catch (const CError&) {
        return false;
    }
}

// The entry is in the table as it was asked for, or as a tick that came since has left it: started
// and moved on, or gone because it ran.
bool IsThere(const TTable& table, const TTaskEntry& wanted, TTime since) {
    const TTaskEntry* const found = table.Find(wanted.name);
    if (found == nullptr)
        return wanted.period == 0 && !wanted.paused && wanted.next <= Now();
    const bool hasRun = found->last >= since;
    return (found->program == wanted.program || found->program == LaunchedPath(wanted.program)) &&
           found->parameter == wanted.parameter && found->period == wanted.period &&
           found->paused == wanted.paused &&
           (found->next == wanted.next || hasRun || wanted.next < since);
}

[[noreturn]] void NotThere(std::string_view name, const TOutcome& outcome) {
    std::string text = "the change of " + Quoted(name);
    text += outcome.log.empty()
                ? " is not in the table although it was made; look at it again, somebody else may "
                  "be changing it"
                : " could not be saved, the table is as it was before; look for a full disk";
    for (const std::string& message : outcome.log)
        text += "; the add-in says: " + message;
    throw CError(EError::cFailed, text);
}

// What an edit makes of a task. Throws CError (cRefused) when something speaks against it.
TTaskEntry After(TTaskEntry entry, const TEdit& edit, const TForced& forced) {
    entry.next = edit.start.value_or(entry.next);
    entry.period = edit.period.value_or(entry.period);
    entry.program = edit.program.value_or(entry.program);
    entry.parameter = edit.parameter.value_or(entry.parameter);
    // A rewritten task is active until it is paused again, and must not be due meanwhile.
    if (entry.paused && StepOf(entry.period) != std::chrono::seconds(0))
        entry.next = NextOnGrid(entry.next, StepOf(entry.period), Now() + 2 * cAboutToBeDue);
    std::vector<TValidationError> errors =
        FindUnforced(entry, edit.program ? HowToLaunch(entry.program) : EProgram::cAsNamed, forced);
    // What was unsound before and is not touched speaks against nothing.
    Drop(errors, [&](const TValidationError& error) {
        return (!edit.program && error.IsAboutProgram()) ||
               (!entry.paused && !edit.start && !edit.period &&
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

bool CStore::Wake() const {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (!scheduler || !scheduler->sharesStore)
        return false;
    WakeSchedulingProcess();
    return true;
}

std::vector<TValidationError> CStore::Check(const TNewTask& task, const TForced& forced) const {
    return FindUnforced(EntryOf(task), HowToLaunch(task.program), forced);
}

TTaskEntry CStore::Create(const TNewTask& task, bool replace, const TForced& forced) const {
    RefuseFor(Check(task, forced));
    TTaskEntry entry = EntryOf(task);
    TCall call = CallOf(TCall::cCreate, entry);
    call.throughLink = HowToLaunch(task.program) == EProgram::cThroughLink;
    call.mustExist = false;
    call.mustBeNew = !replace;
    // By the clock's rule a task that is due this second might be moved on or removed unrun a second
    // later. A repeating one whose start lies in the past is to be moved on.
    const TTime since = Now();
    call.keepDue = task.period == 0 || task.start >= since;
    const TOutcome outcome = MakeChange(options, {call});
    entry.program = ProgramOf(entry, outcome);
    if (!IsThere(outcome.table, entry, since))
        NotThere(task.name, outcome);
    const TTaskEntry* const made = outcome.table.Find(task.name);
    return made != nullptr ? *made : entry;
}

TTaskEntry CStore::Edited(std::string_view name, const TEdit& edit, const TForced& forced) const {
    return After(Get(name), edit, forced);
}

TTaskEntry CStore::Edit(std::string_view name, const TEdit& edit, const TForced& forced) const {
    // A tick may move the task on between the look at it and the change, which must not take that
    // back: it would run once more.
    for (int tries = cTries;; --tries) {
        try {
            return TryEdit(Get(name), edit, forced);
        } catch (const CChangedMeanwhile&) {
            if (tries == 0)
                throw;
        }
    }
}

TTaskEntry CStore::TryEdit(const TTaskEntry& seen, const TEdit& edit, const TForced& forced) const {
    TTaskEntry entry = After(seen, edit, forced);
    TCall create = CallOf(TCall::cCreate, entry);
    create.throughLink = edit.program && HowToLaunch(entry.program) == EProgram::cThroughLink;
    create.keepDue = true;
    create.mustBeAsSeen = true;
    create.seen = seen;
    std::vector<TCall> calls = {create};
    if (entry.paused)
        calls.push_back(CallOf(TCall::cPause, entry));
    const TTime since = Now();
    const TOutcome outcome = MakeChange(options, calls);
    entry.program = ProgramOf(entry, outcome);
    if (!IsThere(outcome.table, entry, since))
        NotThere(entry.name, outcome);
    return entry;
}

void CStore::Remove(const std::vector<std::string>& names) const {
    const TOutcome outcome = MakeChange(options, CallsOf(TCall::cDestroy, names));
    for (const std::string& name : names) {
        if (outcome.table.Find(name) != nullptr)
            NotThere(name, outcome);
    }
}

void CStore::Pause(const std::vector<std::string>& names) const {
    const TOutcome outcome = MakeChange(options, CallsOf(TCall::cPause, names));
    for (const std::string& name : names) {
        const TTaskEntry* const task = outcome.table.Find(name);
        if (task == nullptr || !task->paused)
            NotThere(name, outcome);
    }
}

static std::vector<TCall> ResumeCalls(const std::vector<std::string>& names,
                                      const TForced& forced) {
    std::vector<TCall> calls = CallsOf(TCall::cResume, names);
    for (TCall& call : calls)
        call.mayRemove = forced.contains("past-start");
    return calls;
}

void CStore::CheckResume(const std::vector<std::string>& names, const TForced& forced) const {
    for (const TCall& call : ResumeCalls(names, forced))
        CheckState(Get(call.task.name), call, options.evenIfDue);
}

void CStore::Resume(const std::vector<std::string>& names, const TForced& forced) const {
    const std::vector<TCall> calls = ResumeCalls(names, forced);
    const TOutcome outcome = MakeChange(options, calls);
    for (const TCall& call : calls) {
        const TTaskEntry* const task = outcome.table.Find(call.task.name);
        if (task == nullptr ? !call.mayRemove : task->paused)
            NotThere(call.task.name, outcome);
    }
}

TTaskEntry CStore::SetPeriod(std::string_view name, std::uint32_t hours,
                             const TForced& forced) const {
    TEdit edit;
    edit.period = hours;
    TTaskEntry entry = Edited(name, edit, forced);
    // The function would count a task that is to run once as missed, and remove it.
    if (hours == 0)
        return Edit(name, edit, forced);
    const TOutcome outcome = MakeChange(options, {CallOf(TCall::cSetPeriod, entry)});
    const TTaskEntry* const task = outcome.table.Find(name);
    if (task == nullptr || task->period != hours)
        NotThere(name, outcome);
    return *task;
}

static TCall RunCall(const TTaskEntry& task, bool force) {
    std::vector<TValidationError> errors = Validate(task, Now(), EProgram::cAsNamed);
    Drop(errors, [](const TValidationError& error) {
        return !error.IsAboutProgram() || error.kind == TValidationError::cRelativePath;
    });
    RefuseFor(errors);
    TCall call = CallOf(TCall::cExecute, task);
    call.mustNotRun = !force;
    return call;
}

void CStore::CheckRun(std::string_view name, bool force) const {
    const TTaskEntry task = Get(name);
    CheckState(task, RunCall(task, force), options.evenIfDue);
}

TRun CStore::Run(std::string_view name, bool force, bool waitForEnd,
                 const std::function<void(pid_t)>& onLaunch) const {
    TCall call = RunCall(Get(name), force);
    call.waitForEnd = waitForEnd;
    const TOutcome outcome = MakeChange(options, {call}, onLaunch);
    if (outcome.process == 0)
        throw CError(EError::cFailed, "cannot start " + Quoted(call.task.program) + ": " +
                                          outcome.startError + "; look at the program");
    if (waitForEnd && !outcome.status)
        throw CError(EError::cFailed, "process " + std::to_string(outcome.process) +
                                          " was started, but how it ended could not be learned");
    return {outcome.process, outcome.status};
}

void CStore::ReplaceAll(const std::vector<TTaskEntry>& tasks,
                        const std::function<void(const std::string&)>& canReplace) const {
    RequireSharedStore(options);
    {
        const CWriterLock turn(options.directory, options.lockTimeout);
        const CStoreMutexLock lock(options.lockTimeout);
        const std::string bytes = ReadBytes(TableFile(options.directory));
        if (canReplace)
            canReplace(bytes);
        if (IsTable(bytes))
            WriteBackup(options.directory, bytes);
        ReplaceTable(options.directory, EncodeTable(tasks));
        AnnounceChange();
    }
    Wake();
}

TTaskEntry CStore::Get(std::string_view name) const {
    const TTable table = Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw CError(EError::cNotFound,
                     "there is no task " + Quoted(name) + "; names are compared byte for byte");
    return *task;
}

}  // namespace vxsched
