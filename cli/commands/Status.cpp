#include <fmt/format.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/ExitStatus.h"
#include "cli/commands/TaskState.h"
#include "cli/output/Json.h"
#include "store/StoreMutexState.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

struct TStatus {
    std::optional<TSchedulingProcess> scheduler;
    std::optional<TMutexState> mutex;
    std::string mutexError;
    std::optional<TTable> table;
    std::string damage;
    std::string tableError;
    std::vector<std::string> overdue;
    std::string file;
    std::uintmax_t size = 0;
};

TStatus Look(const TCommon& common) {
    TStatus status;
    status.scheduler = FindSchedulingProcess(common.store.directory);
    // Before the table is read, which takes the mutex and so would be its last use.
    try {
        status.mutex = InspectStoreMutex();
    } catch (const CError& error) {
        status.mutexError = error.what();
    }
    status.file = TableFile(common.store.directory).string();
    std::error_code ignored;
    if (const auto size = std::filesystem::file_size(status.file, ignored); !ignored)
        status.size = size;
    try {
        status.table = CStore(common.store).Read();
        for (const TProblem& problem : status.table->problems) {
            if (problem.kind != TProblem::cUnusual)
                status.damage = problem.text;
        }
    } catch (const CError& error) {
        if (error.Code() == EError::cDamaged)
            status.damage = error.what();
        else
            status.tableError = error.what();
    }
    const TTime now = Now();
    const CRunningPrograms running;
    if (status.table) {
        for (const TTaskEntry& task : status.table->tasks) {
            if (!task.paused && StateOf(task, running, now).state == TTaskState::cOverdue)
                status.overdue.push_back(task.name);
        }
    }
    return status;
}

bool HasScheduler(const TStatus& status) {
    return status.scheduler && status.scheduler->sharesStore;
}

// The scheduler's last use of the mutex is its last tick; after somebody else's, only that it was no
// later is known.
std::optional<TTime> LastTick(const TStatus& status) {
    if (!HasScheduler(status) || !status.mutex ||
        status.mutex->lastProcess != status.scheduler->process)
        return {};
    return status.mutex->lastUsed;
}

std::string SchedulerText(const TStatus& status) {
    if (!status.scheduler)
        return "none; start vxschedd in this directory";
    if (!status.scheduler->sharesStore)
        return fmt::format("process {}, in another IPC namespace: it cannot be reached from here",
                           status.scheduler->process);
    return fmt::format("process {}", status.scheduler->process);
}

std::string MutexText(const std::optional<TMutexState>& mutex) {
    if (!mutex)
        return "there is none yet";
    if (mutex->value == 0)
        return fmt::format("held by process {}", mutex->lastProcess);
    if (mutex->value == 1)
        return "free";
    return fmt::format("free, and lets {} in at once until the next load of the library",
                       mutex->value);
}

std::string TableText(const TStatus& status) {
    if (!status.damage.empty())
        return fmt::format("{}; vxsched repair", status.damage);
    if (!status.table)
        return status.tableError;
    return fmt::format("{} task{} in {} bytes, sound", status.table->tasks.size(),
                       status.table->tasks.size() == 1 ? "" : "s", status.size);
}

void PrintJson(const TStatus& status, COutput& output) {
    nlohmann::ordered_json json;
    json["scheduling_process"] = status.scheduler
                                     ? nlohmann::ordered_json(status.scheduler->process)
                                     : nlohmann::ordered_json();
    json["reachable"] = HasScheduler(status);
    const std::optional<TTime> tick = LastTick(status);
    json["last_tick"] = JsonOfLast(tick.value_or(TTime()));
    json["mutex"] =
        status.mutex ? nlohmann::ordered_json(status.mutex->value) : nlohmann::ordered_json();
    json["tasks"] = status.table ? nlohmann::ordered_json(status.table->tasks.size())
                                 : nlohmann::ordered_json();
    json["damage"] = status.damage.empty() ? nlohmann::ordered_json() : JsonOfText(status.damage);
    json["overdue"] = nlohmann::ordered_json::array();
    for (const std::string& name : status.overdue)
        json["overdue"].push_back(JsonOfText(name));
    output.Raw(Document(json));
}

}  // namespace

int Status(const TCommon& common, COutput& output) {
    const TStatus status = Look(common);
    if (common.json) {
        PrintJson(status, output);
    } else {
        const auto line = [&](std::string_view what, const std::string& text) {
            output.Line(output.Coloured(fmt::format("{:<11}", what), EColour::cBold) +
                        Show(text).text);
        };
        line("Scheduler", SchedulerText(status));
        if (const std::optional<TTime> tick = LastTick(status))
            line("Last tick", FormatTime(*tick, common.zone));
        line("Mutex", status.mutexError.empty() ? MutexText(status.mutex) : status.mutexError);
        line("File", status.file);
        line("Table", TableText(status));
        for (const std::string& name : status.overdue)
            line("Overdue", name);
    }
    if (!status.damage.empty())
        return cDamagedStatus;
    if (!status.table)
        return cNoAccessStatus;
    return HasScheduler(status) ? cDone : cNoSchedulerStatus;
}

}  // namespace vxsched
