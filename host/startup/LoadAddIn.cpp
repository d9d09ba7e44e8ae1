#include "host/startup/LoadAddIn.h"

#include <fmt/format.h>

#include <algorithm>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/recovery/CHeartbeat.h"
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "host/recovery/OwedLaunches.h"
#include "host/startup/CStoreGate.h"
#include "host/startup/PrepareTable.h"
#include "host/startup/RepairPlan.h"
#include "store/Backups.h"
#include "store/CFormerTable.h"
#include "store/CTableLease.h"
#include "store/TableFile.h"

using vxsched::TTaskEntry;

// Plans the repair of a table that nobody is saving: a direct client's load sets the store mutex
// free under this host, so what looks damaged may be half a save.
static TRepairPlan PlanBetweenSaves(std::chrono::milliseconds timeout) {
    const CDeadline deadline(timeout);
    for (;;) {
        TRepairPlan plan = PlanStartupRepair(".");
        if (plan.repairs.empty() || !vxsched::IsBeingSaved(".", plan.bytes) || !deadline.Pause())
            return plan;
    }
}

// Repairs the table, if need be, so that it is valid and safe to load. Returns its tasks. The
// caller holds the writer lock and the store mutex, unless CStoreGate ignores a hung holder.
static std::vector<TTaskEntry> RepairTable(std::chrono::milliseconds timeout) {
    TRepairPlan plan = PlanBetweenSaves(timeout);
    for (const std::string& value : plan.unusualValues)
        LogWarning(value);
    for (const std::string& loss : plan.possibleLosses)
        LogError(loss);
    if (plan.repairs.empty())
        return std::move(plan.tasks);
    for (const std::string& repair : plan.repairs)
        LogError(repair);
    const std::string quarantined =
        vxsched::ReplaceDamaged(".", plan.bytes, vxsched::EncodeTable(plan.tasks)).string();
    LogError(fmt::format("the table is repaired, with {} task(s); the damaged one is kept as {}",
                         plan.tasks.size(), quarantined));
    return std::move(plan.tasks);
}

static void ReportPrepared(const TPrepared& prepared, CRunHistory& history) {
    for (const TRunRecord& run : prepared.notLaunched) {
        const std::string due = UtcTime(*run.due);
        const bool isUnknown = run.outcome == TRunRecord::cLaunchUnknownRescheduled ||
                               run.outcome == TRunRecord::cLaunchUnknownRemoved;
        const bool isRescheduled = run.outcome == TRunRecord::cRescheduled ||
                                   run.outcome == TRunRecord::cLaunchUnknownRescheduled;
        LogWarning(fmt::format(
            "{}: task \"{}\", due {}, {}{}: {} \"{}\"",
            isUnknown ? "launch unknown after a power failure" : "missed while no host ran",
            *run.task, due.empty() ? "in a year that no calendar has" : due,
            run.missed == 0 ? "" : fmt::format("and {} times until now, ", run.missed - 1),
            isRescheduled ? "rescheduled" : "removed", run.program, run.parameter));
        TRunRecord record = run;
        record.id = MakeOwnRunId();
        record.trigger = cScheduled;
        history.Add(record);
    }
    if (!prepared.notLaunched.empty())
        history.Sync();
    for (const TTaskEntry& task : prepared.caughtUp)
        LogNotice(fmt::format("task \"{}\" was due at {} while no host ran: it catches up",
                              task.name, UtcTime(task.next)));
    for (const TTaskEntry& task : prepared.late)
        LogNotice(
            fmt::format("task \"{}\" was due at {} while the previous host was up, which ended "
                        "before it could launch the program: it is launched now",
                        task.name, UtcTime(task.next)));
}

// What the history has of an owed launch that a power failure left unknown; `tasks` is the table,
// which shows the launch as made.
static TRunRecord RunOfUnknown(const TOwedLaunch& launch, const std::vector<TTaskEntry>& tasks) {
    const bool isInTable = std::any_of(tasks.begin(), tasks.end(), [&](const TTaskEntry& task) {
        return task.name == launch.task;
    });
    TRunRecord record;
    record.outcome =
        isInTable ? TRunRecord::cLaunchUnknownRescheduled : TRunRecord::cLaunchUnknownRemoved;
    record.task = launch.task;
    record.due = launch.due;
    record.program = launch.program;
    record.parameter = launch.parameter;
    return record;
}

// Writes the table, of which `before` was read; on a full disk without what others may have saved
// since.
static void WriteTable(std::string before, const std::string& after) {
    try {
        vxsched::ReplaceMerged(".", std::move(before), after, vxsched::TryToReplaceTable);
    } catch (const vxsched::CError&) {
        vxsched::ReplaceOrOverwriteTable(".", after);
    }
}

// Returns when the uptime of this host begins. Locks: as for RepairTable().
static vxsched::TTime Prepare(const THostOptions& options, const std::optional<TUptime>& previous,
                              CRunHistory& history) {
    vxsched::RemoveLeftovers(".");
    const std::vector<TTaskEntry> tasks = RepairTable(options.lockTimeout);
    const std::vector<TLaunchRecord> records = ReadLaunchRecords();
    std::vector<TLaunchRecord> launches = TakeOverSettledLaunches();
    launches.insert(launches.end(), records.begin(), records.end());
    const std::vector<TLaunchIntent> intents = CLaunchIntents::Instance().Open();
    const std::vector<TOwedLaunch> unknown = SettleOwedLaunches(records, intents, tasks);
    const vxsched::TTime now = vxsched::Now();
    const vxsched::TTime booted(std::chrono::floor<std::chrono::seconds>(ReadBoot().time));
    TPrepared prepared = PrepareTable(tasks, launches, intents, previous, now, booted);
    for (const TOwedLaunch& launch : unknown)
        prepared.notLaunched.push_back(RunOfUnknown(launch, tasks));
    // Reported before the table is written: if the host is killed in between, or the power fails, a
    // missed time is reported twice rather than never.
    ReportPrepared(prepared, history);
    for (const TOwedLaunch& launch : unknown)
        ForgetOwedLaunch(launch);
    if (prepared.tasks != tasks)
        WriteTable(vxsched::EncodeTable(tasks), vxsched::EncodeTable(prepared.tasks));
    SettleLaunches(records);
    CLaunchIntents::Instance().Clear();
    return BeginningOfUptime(prepared, now);
}

TLoaded LoadAddIn(const THostOptions& options, const std::optional<TUptime>& previous,
                  CRunHistory& history,
                  const std::function<std::unique_ptr<CAddInLibrary>(int)>& load) {
    CStoreGate gate(options.lockTimeout);
    TLoaded loaded;
    try {
        loaded.upSince = Prepare(options, previous, history);
    } catch (const vxsched::CError& error) {
        throw CHostError(cBadTable,
                         fmt::format("cannot prepare the table for the add-in: {}. The table "
                                     "was not changed.",
                                     error.what()));
    }
    loaded.library = load(gate.LeaveMutexToLoad());
    return loaded;
}
