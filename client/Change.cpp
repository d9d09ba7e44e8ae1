#include "client/Change.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "client/CChangeProcess.h"
#include "client/LibraryDirectory.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

using std::chrono::milliseconds;

// Time for the load and the calls, one of which may take the two seconds of a launch.
constexpr milliseconds cWork(10'000);
constexpr milliseconds cCall(100);  // for each call: it writes the table
constexpr milliseconds cPause(50);
// For so long after the end of the scheduling process a restarted one is waited for.
constexpr milliseconds cRestartLimit(3'000);
// The limit of the wait for due tasks, in lock timeouts, even while there is progress.
constexpr int cMostTimeouts = 10;

TRequest RequestOf(const TStoreOptions& options, const std::vector<TCall>& calls) {
    std::error_code error;
    return {std::filesystem::absolute(options.directory, error).string(),
            options.addIn.empty() ? LibraryDirectory() + "/libVantrixScheduler.so"
                                  : std::filesystem::absolute(options.addIn, error).string(),
            options.lockTimeout.count(), options.evenIfDue, calls};
}

// Parses the content of cMessageError: "4 there is no task ...", the EError and the message.
CError ErrorOf(const std::string& message) {
    const std::size_t blank = message.find(' ');
    return {static_cast<EError>(std::stoi(message.substr(0, blank))), message.substr(blank + 1)};
}

// Restores the backup if the change process has left a damaged table. Takes the writer lock and the
// store mutex. Returns the state of the table, for a message.
std::string Recover(const TStoreOptions& options) {
    const CWriterLock writerLock(options.directory, options.lockTimeout);
    const CStoreMutexLock mutexLock(options.lockTimeout);
    try {
        DecodeTable(ReadBytes(TableFile(options.directory)), Now());
        return "the table is valid";
    } catch (const CError& error) {
        if (error.Code() != EError::cDamaged)
            throw;
    }
    const std::filesystem::path backup = BackupFile(options.directory);
    DecodeTable(ReadBytes(backup), Now());
    if (rename(backup.c_str(), TableFile(options.directory).c_str()) == -1)
        throw SystemError("cannot restore the backup " + backup.string(), errno);
    AnnounceChange();
    return "the table was damaged and is restored as it was before";
}

[[noreturn]] void Fail(const TStoreOptions& options, const std::string& why,
                       const std::vector<std::string>& log) {
    std::string message = "the change was not finished: " + why;
    for (const std::string& line : log)
        message += "; the add-in logged: " + line;
    try {
        message += "; " + Recover(options);
    } catch (const CError& error) {
        message += "; the table could not be checked afterwards: " + std::string(error.what());
    }
    throw CError(EError::cFailed, message);
}

struct TAttempt {
    TOutcome outcome;
    std::string bytes;  // of the table, read back
    bool isBegun = false;
    bool isRead = false;
    std::string due;      // the due task because of which it was not made
    std::string changed;  // the changed task because of which it was not made
    std::optional<CError> error;
};

void Take(const TMessage& message, const std::function<void(pid_t)>& onLaunch, TAttempt& attempt) {
    if (message.kind == cMessageDue)
        attempt.due = message.content;
    else if (message.kind == cMessageBegun)
        attempt.isBegun = true;
    else if (message.kind == cMessageProgram)
        attempt.outcome.program = message.content;
    else if (message.kind == cMessageChanged)
        attempt.changed = message.content;
    else if (message.kind == cMessageError)
        attempt.error = ErrorOf(message.content);
    else if (message.kind == cMessageLog)
        attempt.outcome.log.push_back(message.content);
    else if (message.kind == cMessageLaunchFailed)
        attempt.outcome.launchError = message.content;
    else if (message.kind == cMessageEnded)
        attempt.outcome.status = std::stoi(message.content);
    else if (message.kind == cMessageLaunched) {
        attempt.outcome.process = std::stoi(message.content);
        if (onLaunch)
            onLaunch(attempt.outcome.process);
    } else if (message.kind == cMessageTable) {
        attempt.bytes = message.content;
        attempt.isRead = true;
    }
}

TAttempt Try(const TStoreOptions& options, const std::vector<TCall>& calls,
             const std::function<void(pid_t)>& onLaunch) {
    TAttempt attempt;
    std::string hung;
    CChangeProcess process(RequestOf(options, calls));
    try {
        // Between two messages the process waits for both locks, or loads the add-in, makes all of
        // the calls and waits for the store mutex again.
        const milliseconds limit = 2 * options.lockTimeout + cWork + calls.size() * cCall;
        // Once the table is read back, only the end of a launched program is awaited, without
        // limit.
        while (const std::optional<TMessage> message =
                   process.Next(attempt.isRead ? std::nullopt : std::optional(limit)))
            Take(*message, onLaunch, attempt);
    } catch (const CError& error) {
        hung = error.what();
        process.Kill();
    }
    const std::string end = process.WaitForEnd();
    // Before cMessageBegun the process has not written the table, so that needs no check.
    if (attempt.error && (!attempt.isBegun || attempt.error->Code() != EError::cFailed))
        return attempt;
    if (attempt.error)
        Fail(options, attempt.error->what(), attempt.outcome.log);
    const bool isMade = attempt.isRead && hung.empty();
    if (!isMade && attempt.due.empty() && attempt.changed.empty())
        Fail(options, hung.empty() ? "the change process " + end : hung, attempt.outcome.log);
    return attempt;
}

bool IsDueBy(const TTaskEntry& task, TTime time) {
    return !task.paused && task.next <= time;
}

// Wakes the scheduling process until it has launched and rescheduled every due task. Throws CError
// (cNoScheduler, cBusy).
void WaitUntilLaunched(const TStoreOptions& options, const std::string& due) {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (!scheduler)
        throw CError(
            EError::cNoScheduler,
            "task \"" + due +
                "\" is due and there is no scheduling process to launch it; start a "
                "scheduling process, or allow changes while tasks are due (--even-if-due), "
                "which leaves it due");
    const auto start = std::chrono::steady_clock::now();
    auto end = start + options.lockTimeout;
    auto lastSeen = start;
    std::vector<TTaskEntry> seen;
    while (std::chrono::steady_clock::now() < end) {
        const TTable table = ReadTable(options.directory, options.lockTimeout);
        const auto isDueBy = [&](TTime time) {
            return std::any_of(table.tasks.begin(), table.tasks.end(),
                               [&](const TTaskEntry& task) { return IsDueBy(task, time); });
        };
        if (!isDueBy(Now() + cAboutToBeDue))
            return;
        if (FindSchedulingProcess(options.directory))
            lastSeen = std::chrono::steady_clock::now();
        else if (std::chrono::steady_clock::now() - lastSeen > cRestartLimit)
            throw CError(EError::cNoScheduler,
                         "task \"" + due +
                             "\" is due and the scheduling process has ended meanwhile; start it "
                             "again, or allow changes while tasks are due (--even-if-due)");
        if (isDueBy(Now()))
            WakeSchedulingProcess();
        // A tick takes two seconds for each launch: any change of the table counts as progress.
        if (table.tasks != seen)
            end = std::min(start + cMostTimeouts * options.lockTimeout,
                           std::chrono::steady_clock::now() + options.lockTimeout);
        seen = table.tasks;
        std::this_thread::sleep_for(cPause);
    }
    throw CError(EError::cBusy,
                 "task \"" + due + "\" is due and " + scheduler->Name() +
                     " has not launched the due tasks within the lock timeout of " +
                     std::to_string(options.lockTimeout.count()) +
                     " ms since its last progress, or " + std::to_string(cMostTimeouts) +
                     " times that in all; nothing was changed; check the host's log");
}

}  // namespace

void RequireSharedStore(const TStoreOptions& options) {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (scheduler && !scheduler->sharesStore)
        throw CError(EError::cNoScheduler,
                     "the scheduling process, " + scheduler->Name() +
                         ", runs in another IPC namespace: it would not notice a change and would "
                         "overwrite it; run this in the same namespace");
}

TOutcome MakeChange(const TStoreOptions& options, const std::vector<TCall>& calls,
                    const std::function<void(pid_t)>& onLaunch) {
    RequireSharedStore(options);
    TAttempt attempt = Try(options, calls, onLaunch);
    // Other tasks may have come due during the wait, so this may take several iterations.
    while (!attempt.due.empty()) {
        WaitUntilLaunched(options, attempt.due);
        attempt = Try(options, calls, onLaunch);
    }
    if (attempt.error)
        throw CError(*attempt.error);
    if (!attempt.changed.empty())
        throw CChangedMeanwhile(attempt.changed);
    try {
        attempt.outcome.table = DecodeTable(attempt.bytes, Now());
    } catch (const CError& error) {
        Fail(options, error.what(), attempt.outcome.log);
    }
    if (FindSchedulingProcess(options.directory))
        WakeSchedulingProcess();
    return std::move(attempt.outcome);
}

}  // namespace vxsched
