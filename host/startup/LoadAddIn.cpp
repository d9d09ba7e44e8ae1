#include "host/startup/LoadAddIn.h"

#include <fmt/format.h>

#include <vxsched/Error.h>
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/recovery/LaunchRecords.h"
#include "host/startup/CStoreGate.h"
#include "host/startup/PrepareTable.h"
#include "host/startup/RepairPlan.h"
#include "store/Backups.h"
#include "store/TableFile.h"

using vxsched::TTaskEntry;

// Makes the file a table that is sound and harmless, if it is none.
static std::vector<TTaskEntry> RepairTable() {
    TRepairPlan plan = PlanStartupRepair(".");
    for (const std::string& warning : plan.warnings)
        LogWarning(warning);
    for (const std::string& alarm : plan.alarms)
        LogError(alarm);
    if (plan.repairs.empty())
        return std::move(plan.tasks);
    for (const std::string& mend : plan.repairs)
        LogError(mend);
    const std::string aside =
        vxsched::ReplaceDamaged(".", plan.bytes, vxsched::EncodeTable(plan.tasks)).string();
    LogError(fmt::format("the table is mended, with {} task(s); the former one is {}",
                         plan.tasks.size(), aside));
    return std::move(plan.tasks);
}

static void Tell(const TPrepared& prepared, CRunHistory& history) {
    for (const TRunRecord& run : prepared.missed) {
        const std::string due = UtcTime(*run.due);
        LogWarning(fmt::format("missed while no host ran: task \"{}\", due {}, {}: {} \"{}\"",
                               *run.task, due.empty() ? "at a time beyond every calendar" : due,
                               run.outcome == TRunRecord::cMovedOn ? "moved on" : "removed unrun",
                               run.program, run.parameter));
        history.Add(run);
    }
    for (const TTaskEntry& task : prepared.late)
        LogNotice(
            fmt::format("task \"{}\" was due at {} under the former host, which was ended "
                        "before it could start it: it is started now",
                        task.name, UtcTime(task.next)));
}

// Returns when the watch begins.
static vxsched::TTime Prepare(const std::optional<TUptime>& former, CRunHistory& history) {
    vxsched::RemoveLeftovers(".");
    const std::vector<TTaskEntry> tasks = RepairTable();
    const std::vector<TLaunchRecord> marks = ReadLaunchRecords();
    const vxsched::TTime now = vxsched::Now();
    const TPrepared prepared = PrepareTable(tasks, marks, former, now);
    // The records go first: whatever ends the host in between, a time is rather told twice than lost.
    Tell(prepared, history);
    if (prepared.tasks != tasks)
        vxsched::ReplaceOrOverwriteTable(".", vxsched::EncodeTable(prepared.tasks));
    for (const TLaunchRecord& mark : marks)
        RemoveLaunchRecord(mark);
    return BeginningOfUptime(prepared, now);
}

TLoaded LoadAddIn(const THostOptions& options, const std::optional<TUptime>& former,
                  CRunHistory& history,
                  const std::function<std::unique_ptr<CAddInLibrary>()>& load) {
    CStoreGate gate(options.lockTimeout);
    TLoaded loaded;
    try {
        loaded.upSince = Prepare(former, history);
    } catch (const vxsched::CError& error) {
        throw CHostError(cBadTable,
                         fmt::format("cannot make the table fit to be loaded: {}. It was "
                                     "left as it is.",
                                     error.what()));
    }
    loaded.library = load();
    gate.Loaded();
    return loaded;
}
