// status: the scheduling process, the store mutex and the table.

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/AbsolutePath.h"
#include "base/CDeadline.h"
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/TaskState.h"
#include "cli/output/Json.h"
#include "store/CMutexHealer.h"
#include "store/CWriterLock.h"
#include "store/LostTasks.h"
#include "store/MutexHolders.h"
#include "store/OwedLaunches.h"
#include "store/StoreAccess.h"
#include "store/StoreMutexSet.h"
#include "store/StoreMutexState.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

struct TStatus {
    std::optional<TSchedulingProcess> scheduler;
    std::string schedulerError;  // why it is not known
    std::optional<TMutexState> mutex;
    std::string mutexError;
    bool isMutexWedged = false;
    bool isMutexAbandoned = false;
    std::optional<TPossibleHolder> holder;  // of a mutex whose last user has ended
    std::optional<TTable> table;
    std::string damage;
    std::optional<CError> tableError;    // why the table could not be read, unless it is damaged
    std::string tableProblem;            // the message of that error
    std::optional<std::string> missing;  // the message, if the table is missing
    std::vector<std::string> overdue;
    std::vector<TOwedLaunch> owed;
    std::string file;
    bool hasTable = false;
    std::uintmax_t size = 0;
};

// The writer lock, without a wait; empty where it is held or there is none.
std::unique_ptr<CWriterLock> TryTakeWriterLock(const std::filesystem::path& directory) {
    try {
        return std::make_unique<CWriterLock>(directory, std::chrono::milliseconds(0));
    } catch (const CError&) {
        return nullptr;
    }
}

// Examines a held mutex, unless its last user holds it. Otherwise waits until the state was the
// same for a while or changes. Without the writer lock it finds nothing: the holder may be a client
// that makes a change, whose waits look like those of one that holds nothing.
void FindHolder(const std::filesystem::path& directory, TStatus& status) {
    constexpr std::chrono::milliseconds cPause(100);
    const auto mayBeLast = [&](const std::optional<TPossibleHolder>& holder) {
        return holder && holder->process == status.mutex->lastProcess &&
               holder->reason == TPossibleHolder::cMayHold;
    };
    if (!status.mutex || status.mutex->value != 0)
        return;
    status.isMutexAbandoned = IsSetAbandoned(status.mutex->set);
    if (status.isMutexAbandoned || mayBeLast(FindPossibleHolder(*status.mutex)))
        return;
    CMutexHealer healer;
    const CDeadline deadline(2 * CMutexHealer::cUnchangedTime);
    while (healer.Observe() == CMutexHealer::cInUse && deadline.Pause(cPause)) {
    }
    if (healer.Observe() == CMutexHealer::cInUse)
        return;
    const std::unique_ptr<CWriterLock> writerLock = TryTakeWriterLock(directory);
    if (!writerLock)
        return;
    status.mutex = InspectStoreMutex();
    if (!status.mutex || status.mutex->value != 0)
        return;
    const std::optional<TPossibleHolder> holder = FindPossibleHolder(*status.mutex);
    status.isMutexWedged = !holder && InspectStoreMutex() == status.mutex;
    if (!mayBeLast(holder))
        status.holder = holder;
}

TStatus ReadStatus(const TCommon& common) {
    TStatus status;
    try {
        status.scheduler = FindSchedulingProcess(common.store.directory);
    } catch (const CError& error) {
        status.schedulerError = error.what();
    }
    // Inspect the mutex before reading the table: reading takes the mutex, and would count as its
    // last use.
    try {
        status.mutex = InspectStoreMutex();
        FindHolder(common.store.directory, status);
    } catch (const CError& error) {
        status.mutexError = error.what();
    }
    status.file = AbsolutePath(TableFile(common.store.directory));
    std::error_code ignored;
    if (const auto size = std::filesystem::file_size(TableFile(common.store.directory), ignored);
        !ignored) {
        status.hasTable = true;
        status.size = size;
    }
    TStoreOptions store = common.store;
    if (status.isMutexWedged)
        store.lockTimeout = std::chrono::milliseconds(0);
    try {
        // A reader would give the mutex its value; this command changes nothing.
        if (status.isMutexAbandoned)
            throw CError(EError::cBusy, "not read, since the store mutex cannot be taken");
        status.table = CStore(store).Read();
        for (const TProblem& problem : status.table->problems) {
            if (problem.kind != TProblem::cUnusual)
                status.damage = problem.message;
        }
    } catch (const CError& error) {
        if (error.Code() == EError::cDamaged) {
            status.damage = error.what();
        } else {
            status.tableError = error;
            status.tableProblem = error.what();
        }
        if (error.Code() == EError::cNoAccess)
            status.tableProblem += NoteOfUsers(common.store.directory);
    }
    status.owed = FindOwedLaunches(common.store.directory);
    status.missing = DescribeMissingTable(common.store.directory);
    const TTime now = Now();
    if (status.table) {
        for (const TTaskEntry& task : status.table->tasks) {
            if (IsOverdue(task, now))
                status.overdue.push_back(task.name);
        }
    }
    return status;
}

bool HasScheduler(const TStatus& status) {
    return status.scheduler && status.scheduler->sharesStore;
}

// The time of the last tick: the scheduling process's last use of the mutex. Empty if another
// process has used the mutex since, because the system keeps only the last use.
std::optional<TTime> LastTick(const TStatus& status) {
    if (!HasScheduler(status) || status.scheduler->process == 0 || !status.mutex ||
        status.mutex->lastProcess != status.scheduler->process)
        return {};
    return status.mutex->lastUsed;
}

std::string DescribeLastTick(const TStatus& status, EZone zone) {
    if (const std::optional<TTime> tick = LastTick(status))
        return FormatTime(*tick, zone);
    if (status.mutex && status.scheduler->process != 0)
        return "not known, since another process has used the mutex after it";
    return "not known";
}

std::string DescribeScheduler(const TStatus& status, const std::string& directory) {
    if (!status.schedulerError.empty())
        return status.schedulerError;
    if (!status.scheduler)
        return fmt::format("none runs in {}; start vxschedd there", directory);
    if (!status.scheduler->sharesStore)
        return fmt::format("{}, in another IPC namespace; it cannot be reached from here",
                           status.scheduler->Name());
    return status.scheduler->Name();
}

// What is wrong with the mutex, and what to do; empty if nothing is.
std::string DescribeMutexProblem(const TStatus& status) {
    const std::optional<TMutexState>& mutex = status.mutex;
    if (!status.mutexError.empty())
        return status.mutexError;
    if (status.isMutexAbandoned)
        return "made, but never given a value, and cannot be taken; run vxsched repair";
    if (status.isMutexWedged)
        return "held by no process, and cannot be taken; run vxsched repair";
    if (status.holder)
        return fmt::format("held, last by process {}; {}", mutex->lastProcess,
                           Describe(*status.holder));
    if (mutex && mutex->value > 1)
        return fmt::format(
            "free, but its value is {}: as many processes can hold it at once; run vxsched repair",
            mutex->value);
    return "";
}

std::string DescribeMutex(const TStatus& status) {
    if (std::string problem = DescribeMutexProblem(status); !problem.empty())
        return problem;
    if (!status.mutex)
        return "not created yet";
    if (status.mutex->value == 0)
        return fmt::format("held by process {}", status.mutex->lastProcess);
    return "free";
}

std::string DescribeTable(const TStatus& status) {
    if (!status.damage.empty())
        return fmt::format("{}; run vxsched repair", status.damage);
    if (!status.table)
        return status.tableProblem;
    if (status.missing)
        return *status.missing;
    if (!status.hasTable)
        return "not there yet; the first task makes it";
    return fmt::format("{} in {} bytes, valid", CountOf(status.table->tasks.size(), "task"),
                       status.size);
}

void PrintJson(const TStatus& status, const std::string& semaphoresProblem, COutput& output) {
    nlohmann::ordered_json json;
    json["scheduling_process"] = status.scheduler
                                     ? nlohmann::ordered_json(status.scheduler->process)
                                     : nlohmann::ordered_json();
    json["scheduling_process_error"] = status.schedulerError.empty()
                                           ? nlohmann::ordered_json()
                                           : JsonOfString(status.schedulerError);
    json["reachable"] = HasScheduler(status);
    const std::optional<TTime> tick = LastTick(status);
    json["last_tick"] = JsonOfLast(tick.value_or(TTime()));
    json["mutex"] =
        status.mutex ? nlohmann::ordered_json(status.mutex->value) : nlohmann::ordered_json();
    const std::string mutexProblem = DescribeMutexProblem(status);
    json["mutex_problem"] =
        mutexProblem.empty() ? nlohmann::ordered_json() : JsonOfString(mutexProblem);
    json["semaphores_problem"] =
        semaphoresProblem.empty() ? nlohmann::ordered_json() : JsonOfString(semaphoresProblem);
    json["tasks"] = status.table ? nlohmann::ordered_json(status.table->tasks.size())
                                 : nlohmann::ordered_json();
    json["table_error"] =
        status.tableProblem.empty() ? nlohmann::ordered_json() : JsonOfString(status.tableProblem);
    json["damage"] = status.damage.empty() ? nlohmann::ordered_json() : JsonOfString(status.damage);
    json["overdue"] = nlohmann::ordered_json::array();
    for (const std::string& name : status.overdue)
        json["overdue"].push_back(JsonOfString(name));
    json["owed"] = nlohmann::ordered_json::array();
    for (const TOwedLaunch& launch : status.owed)
        json["owed"].push_back(
            {{"name", JsonOfString(launch.task)}, {"due", FormatIsoTime(launch.due)}});
    output.Raw(Document(json));
}

}  // namespace

TExitStatus Status(const TCommon& common, COutput& output) {
    const TStatus status = ReadStatus(common);
    const std::string semaphoresProblem = WhySemaphoresAreRefused(common.store.directory);
    if (common.json) {
        PrintJson(status, semaphoresProblem, output);
    } else {
        const auto line = [&](std::string_view label, const std::string& value) {
            output.Line(output.Coloured(fmt::format("{:<11}", label), EColour::cBold) +
                        Show(value).string);
        };
        line("Scheduler", DescribeScheduler(status, AbsolutePath(common.store.directory)));
        if (HasScheduler(status))
            line("Last tick", DescribeLastTick(status, common.zone));
        line("Mutex", DescribeMutex(status));
        if (!semaphoresProblem.empty())
            line("Semaphores", semaphoresProblem);
        line("File", status.file);
        line("Table", DescribeTable(status));
        for (const std::string& name : status.overdue)
            line("Overdue", name);
        for (const TOwedLaunch& launch : status.owed)
            line("Owed",
                 fmt::format("{}, due {}", launch.task, FormatTime(launch.due, common.zone)));
    }
    if (!status.damage.empty())
        return cDamagedStatus;
    if (status.tableError)
        return StatusOf(status.tableError->Code());
    return HasScheduler(status) ? cDone : cNoSchedulerStatus;
}

}  // namespace vxsched
