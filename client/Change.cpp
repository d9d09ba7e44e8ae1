#include "client/Change.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/CDeadline.h"
#include "client/ApplyCalls.h"
#include "client/CChangeProcess.h"
#include "client/ChangeChecks.h"
#include "client/LibraryDirectory.h"
#include "runs/RunnerLaunch.h"
#include "store/Backups.h"
#include "store/COwnerAccess.h"
#include "store/CStoreMutexLock.h"
#include "store/CTableLease.h"
#include "store/CWriterLock.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/TableFile.h"
#include "store/WorkerState.h"

namespace vxsched {

namespace {

using std::chrono::milliseconds;

// Time for the calls, or the load of the add-in and a launch.
constexpr milliseconds cWork(10'000);
constexpr milliseconds cPause(50);
// For so long after the end of the scheduling process a restarted one is waited for.
constexpr milliseconds cRestartLimit(3'000);
// The limit of the wait for due tasks, in lock timeouts, even while there is progress.
constexpr int cMostTimeouts = 10;

TRequest RequestOf(const TStoreOptions& options, const TChange& change) {
    std::error_code error;
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    return {std::filesystem::absolute(options.directory, error).string(),
            options.addIn.empty() ? LibraryDirectory() + '/' + cAddInFile
                                  : std::filesystem::absolute(options.addIn, error).string(),
            options.lockTimeout.count(),
            options.evenIfDue,
            scheduler.has_value(),
            scheduler && scheduler->holdsLock,
            change.output != -1,
            change.calls};
}

// Parses the content of cMessageError: "4 there is no task ...", the EError and the message.
CError ErrorOf(const std::string& message) {
    const std::size_t blank = message.find(' ');
    return MakeError(static_cast<EError>(std::stoi(message.substr(0, blank))), "{}",
                     message.substr(blank + 1));
}

struct TAttempt {
    TOutcome outcome;
    std::optional<std::string> bytes;  // of the table, read back
    bool isBegun = false;
    bool mayBeOverwritten = false;  // by a tick that was under way when the table was read back
    // Why it was not made:
    bool isTickUnderWay = false;
    std::string due;      // because of this due task
    std::string changed;  // because of this changed task
    std::optional<CError> error;
    std::string cutShort;  // because the change process ended early: how
};

// Restores the backup if the change process has left a damaged table. Takes the writer lock and the
// store mutex. Reads the attempt's table and returns its state, for a message.
std::string Recover(const TStoreOptions& options, TAttempt& attempt) {
    const COwnerAccess ownerAccess(options.directory);
    TTable& table = attempt.outcome.table;
    const CWriterLock writerLock(options.directory, options.lockTimeout);
    const CStoreMutexLock mutexLock(options.lockTimeout, writerLock);
    attempt.mayBeOverwritten = IsTickUnderWay(options.directory);
    const CDeadline deadline(options.lockTimeout);
    std::string bytes;
    do {
        bytes = ReadTableBytes(options.directory);
        try {
            table = DecodeTable(bytes, Now());
            return "the table is valid";
        } catch (const CError& error) {
            if (error.Code() != EError::cDamaged)
                throw;
        }
    } while (IsBeingSaved(options.directory, bytes) && deadline.Pause());
    RestoreBeforeChange(options.directory);
    table = DecodeTable(ReadTableBytes(options.directory), Now());
    std::string state = "the table was damaged and is restored as it was before";
    try {
        AnnounceChange();
    } catch (const CError& error) {
        state += fmt::format("; that could not be announced: {}", error.what());
    }
    return state;
}

std::string WithLog(std::string message, const std::vector<std::string>& log) {
    for (const std::string& line : log)
        message += "; the add-in logged: " + line;
    return message;
}

// Attempts a change in a process of its own.
class CAttempt {
public:
    CAttempt(const TStoreOptions& storeOptions, const TChange& requested)
        : options(storeOptions),
          change(requested),
          process(RequestOf(storeOptions, requested), requested.output) {}

    TAttempt Make() {
        std::string hung;
        try {
            while (const std::optional<TMessage> message = process.Next(Limit()))
                Take(*message);
        } catch (const CError& error) {
            hung = error.what();
            process.Kill();
        }
        const std::string end = process.WaitForEnd();
        const bool isAnswered =
            made.bytes || made.isTickUnderWay || !made.due.empty() || !made.changed.empty();
        if (!hung.empty())
            made.cutShort = hung;
        else if (!isAnswered && !made.error)
            made.cutShort = "the change process " + end;
        return std::move(made);
    }

private:
    // Between two messages the process waits for both locks, or makes the change and waits for the store
    // mutex again. A run waits for its runner besides.
    milliseconds Limit() const {
        return 2 * options.lockTimeout + cWork +
               (IsRun(change.calls) ? milliseconds(cRunnerLimit) : milliseconds(0));
    }

    void Take(const TMessage& message) {
        if (message.kind == cMessageTick)
            made.isTickUnderWay = true;
        else if (message.kind == cMessageDue)
            made.due = message.content;
        else if (message.kind == cMessageReady)
            Begin();
        else if (message.kind == cMessageBegun)
            made.isBegun = true;
        else if (message.kind == cMessageChanged)
            made.changed = message.content;
        else if (message.kind == cMessageError)
            made.error = ErrorOf(message.content);
        else if (message.kind == cMessageLog)
            made.outcome.log.push_back(message.content);
        else if (message.kind == cMessageWarning)
            made.outcome.warnings.push_back(message.content);
        else if (message.kind == cMessageLaunchFailed)
            made.outcome.launchError = message.content;
        else if (message.kind == cMessageLaunchUnknown)
            made.outcome.launchUnknown = message.content;
        else if (message.kind == cMessageLaunched)
            Launched(message.content);
        else if (message.kind == cMessageMayBeOverwritten)
            made.mayBeOverwritten = true;
        else if (message.kind == cMessageTable)
            made.bytes = message.content;
    }

    void Begin() {
        if (options.onBegin)
            options.onBegin();
        process.Go();
    }

    void Launched(const std::string& content) {
        std::size_t blank = 0;
        made.outcome.run.process = std::stoi(content, &blank);
        made.outcome.run.id = content.substr(blank + 1);
        if (change.onLaunch)
            change.onLaunch(made.outcome.run);
    }

    const TStoreOptions& options;
    const TChange& change;
    CChangeProcess process;
    TAttempt made;
};

CError NobodyLaunches(const std::string& due) {
    return MakeError(EError::cNoScheduler,
                     "task \"{}\" is due and there is no scheduling process to launch it; start "
                     "a scheduling process, or allow changes while tasks are due "
                     "(--even-if-due), which leaves it due",
                     due);
}

// Wakes the scheduling process until it has launched and rescheduled every due task. Throws CError
// (cNoScheduler, cBusy).
void WaitUntilLaunched(const TStoreOptions& options, const std::string& due) {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (!scheduler)
        throw NobodyLaunches(due);
    const CDeadline total(cMostTimeouts * options.lockTimeout);
    CDeadline progress(options.lockTimeout);
    CDeadline restart(cRestartLimit);
    std::vector<TTaskEntry> seen;
    while (!total.HasPassed() && !progress.HasPassed()) {
        const TTable table = ReadTable(options.directory, options.lockTimeout);
        const auto isDueBy = [&](TTime time) {
            return std::any_of(table.tasks.begin(), table.tasks.end(), [&](const TTaskEntry& task) {
                return !task.paused && task.next <= time;
            });
        };
        if (!isDueBy(Now() + cAboutToBeDue))
            return;
        if (FindSchedulingProcess(options.directory))
            restart = CDeadline(cRestartLimit);
        else if (restart.HasPassed())
            throw MakeError(EError::cNoScheduler,
                            "task \"{}\" is due and the scheduling process has ended meanwhile; "
                            "start it again, or allow changes while tasks are due (--even-if-due)",
                            due);
        if (isDueBy(Now()))
            WakeSchedulingProcess();
        // A tick may launch many programs: any change of the table counts as progress.
        if (table.tasks != seen)
            progress = CDeadline(options.lockTimeout);
        seen = table.tasks;
        progress.Pause(cPause);
    }
    throw MakeError(EError::cBusy,
                    "task \"{}\" is due and {} has not launched the due tasks within the "
                    "lock timeout of {} ms since its last progress, or {} times that in all; "
                    "nothing was changed; check the host's log",
                    due, scheduler->Name(), options.lockTimeout.count(), cMostTimeouts);
}

// Checks whether a change that was cut short is in the table, and takes that for the outcome. Throws
// CError: cUnknown if that cannot be determined, and if it was not made, the error that kept it from
// being made, cFailed if the change process reported none.
void Settle(const TStoreOptions& options, const TChange& change, TAttempt& attempt,
            const std::string& why) {
    const EError code = attempt.error ? attempt.error->Code() : EError::cFailed;
    const std::string what = WithLog(why, attempt.outcome.log);
    if (!attempt.isBegun)
        throw MakeError(EError::cFailed,
                        "the change was not made: {}; nothing was changed; try again", what);
    std::string state;
    try {
        state = Recover(options, attempt);
    } catch (const CError& error) {
        throw MakeError(EError::cUnknown,
                        "the change was cut short: {}; whether it was made is not known, since the "
                        "table could not be checked: {}",
                        what, error.what());
    }
    const std::optional<std::string> missing = change.findMissing(attempt.outcome);
    if (!missing)
        return;
    if (IsRun(change.calls))
        throw MakeError(EError::cUnknown,
                        "the run of \"{}\" was cut short: {}; whether the program was launched is "
                        "not known; look for its process and its effects",
                        *missing, what);
    throw MakeError(code, "the change of \"{}\" was not made: {}; {}", *missing, what, state);
}

[[noreturn]] void NotThere(std::string_view name, const TOutcome& outcome) {
    const char* const what =
        outcome.log.empty()
            ? "was made but is not in the table; check the table, another process may be changing "
              "it"
            : "could not be saved, the table is as it was before; check for a full disk";
    throw MakeError(EError::cFailed, "{}",
                    WithLog(fmt::format("the change of \"{}\" {}", name, what), outcome.log));
}

// Waits until no tick is under way, at most the lock timeout; false if one still is.
bool HasTickEnded(const TStoreOptions& options) {
    const CDeadline deadline(options.lockTimeout);
    while (IsTickUnderWay(options.directory)) {
        if (!deadline.Pause(cPause))
            return false;
    }
    return true;
}

// Why a tick has not ended, and what to do. Without the lock of a vxschedd, a host in the middle of a
// tick whose store mutex a direct client has set free is like a direct client with several threads.
std::string DescribeTick(const TStoreOptions& options) {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (scheduler && !scheduler->holdsLock)
        return fmt::format(
            "{} has loaded the add-in and has several threads, as a host in the middle of a tick "
            "has, and did not become idle within {} ms; if it is a host, check its log, else it is "
            "a client that keeps others from making changes: end it",
            scheduler->Name(), options.lockTimeout.count());
    return fmt::format(
        "the scheduling process is in the middle of a tick, which did not end within {} ms; check "
        "the host's log",
        options.lockTimeout.count());
}

// Attempts the change until nothing keeps it from being made. Throws CError.
TAttempt AttemptInTurn(const TStoreOptions& options, const TChange& change) {
    for (;;) {
        TAttempt attempt = CAttempt(options, change).Make();
        // Other tasks may have come due during the wait, so this may take several iterations.
        if (!attempt.due.empty())
            WaitUntilLaunched(options, attempt.due);
        else if (attempt.isTickUnderWay)
            WaitForTheTicksEnd(options);
        else
            return attempt;
    }
}

// Reads the table again once the tick is over that may have overwritten the change. Throws CError
// (cUnknown).
TTable ReadAfterTheTick(const TStoreOptions& options) {
    std::string why;
    try {
        if (HasTickEnded(options))
            return ReadTable(options.directory, options.lockTimeout);
        why = DescribeTick(options);
    } catch (const CError& error) {
        why = error.what();
    }
    throw MakeError(EError::cUnknown,
                    "the change was made, but whether a tick that was under way has overwritten it "
                    "could not be verified: {}",
                    why);
}

// Makes the change once and returns what the table shows afterwards. Throws CError.
TOutcome MakeOnce(const TStoreOptions& options, const TChange& change) {
    TAttempt attempt = AttemptInTurn(options, change);
    if (!attempt.changed.empty())
        throw CChangedMeanwhile(attempt.changed);
    if (attempt.error && !attempt.isBegun)
        throw CError(*attempt.error);
    if (attempt.error || !attempt.cutShort.empty()) {
        Settle(options, change, attempt, attempt.error ? attempt.error->what() : attempt.cutShort);
    } else {
        try {
            attempt.outcome.table = DecodeTable(*attempt.bytes, Now());
        } catch (const CError& error) {
            Settle(options, change, attempt, error.what());
        }
    }
    // A launch is known without the table.
    if (attempt.mayBeOverwritten && !IsRun(change.calls))
        attempt.outcome.table = ReadAfterTheTick(options);
    return std::move(attempt.outcome);
}

}  // namespace

void RequireSharedStore(const TStoreOptions& options) {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (scheduler && !scheduler->sharesStore)
        throw MakeError(EError::cNoScheduler,
                        "the scheduling process, {}, runs in another IPC namespace: it would not "
                        "notice a change and would overwrite it; run this in the same namespace",
                        scheduler->Name());
}

void CheckChange(const TStoreOptions& options, const std::vector<TCall>& calls) {
    RequireSharedStore(options);
    const COwnerAccess ownerAccess(options.directory);
    const TTable table = ReadTable(options.directory, options.lockTimeout);
    TRequest request;
    request.evenIfDue = options.evenIfDue;
    request.calls = calls;
    const TTaskEntry* const due = FindDue(table, request);
    if (due != nullptr && !FindSchedulingProcess(options.directory))
        throw NobodyLaunches(due->name);
    CheckTable(options.directory, table);
    CAppliedCalls applied(table.tasks);
    for (const TCall& call : calls)
        applied.Apply(options.directory, call, options.evenIfDue);
}

void WaitForTheTicksEnd(const TStoreOptions& options) {
    if (!HasTickEnded(options))
        throw MakeError(EError::cBusy, "nothing was changed: {}", DescribeTick(options));
}

void Warn(const TStoreOptions& options, const std::string& warning) {
    if (!warning.empty() && options.onWarning)
        options.onWarning(warning);
}

void WakeAfterChange(const TStoreOptions& options) {
    try {
        if (FindSchedulingProcess(options.directory))
            WakeSchedulingProcess();
    } catch (const CError& error) {
        Warn(options, fmt::format("the change is made and the scheduling process could not be "
                                  "woken: {}; the change takes effect at its next tick, within a "
                                  "minute",
                                  error.what()));
    }
}

TOutcome MakeChange(const TStoreOptions& options, const TChange& change) {
    RequireSharedStore(options);
    const CDeadline deadline(options.lockTimeout);
    for (;;) {
        TOutcome outcome = MakeOnce(options, change);
        const std::optional<std::string> missing = change.findMissing(outcome);
        if (!missing) {
            for (const std::string& warning : outcome.warnings)
                Warn(options, warning);
            WakeAfterChange(options);
            return outcome;
        }
        const bool isOverwritten =
            outcome.log.empty() && FindSchedulingProcess(options.directory).has_value();
        if (!isOverwritten || deadline.HasPassed())
            NotThere(*missing, outcome);
        if (options.onRetry)
            options.onRetry();
    }
}

}  // namespace vxsched
