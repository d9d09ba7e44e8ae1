#include "host/LoadAddIn.h"

#include <fmt/format.h>

#include <ctime>

#include "client/CClientError.h"
#include "client/Table.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/CStoreGate.h"
#include "host/MissedTasks.h"

using vxsched::TTable;
using vxsched::TTime;

static TTime TimeOfNow() {
    return TTime(std::chrono::seconds(std::time(nullptr)));
}

// The caller holds the gate.
static TTable ReadTableOfGate(TTime now) {
    try {
        return vxsched::DecodeTable(vxsched::ReadTableBytes("."), now);
    } catch (const vxsched::CClientError& error) {
        if (error.Code() != vxsched::EError::cDamaged)
            throw CHostError(cNoDirectory, error.what());
        throw CHostError(cBadTable,
                         fmt::format("{}. Loading the add-in would reset files/scheduler.dat to a "
                                     "table of no tasks, so it was left as it is. Put a sound copy "
                                     "in its place, or move it away to begin with no tasks.",
                                     error.what()));
    }
}

static void RequireSafeToLoad(const TTable& table) {
    for (const vxsched::TProblem& problem : table.problems) {
        if (problem.kind == vxsched::TProblem::cEndless)
            throw CHostError(cBadTable, fmt::format("the table cannot be loaded: {}. Put a sound "
                                                    "copy of files/scheduler.dat in its place.",
                                                    problem.text));
        LogWarning(fmt::format("in the table, at offset {}: {}", problem.offset, problem.text));
    }
}

static void TellMissed(const std::vector<TRunRecord>& missed, CRunHistory& history) {
    for (const TRunRecord& run : missed) {
        const std::string due = UtcTime(*run.due);
        LogWarning(fmt::format("missed while no host ran: task \"{}\", due {}, {}: {} \"{}\"",
                               *run.task, due.empty() ? "at a time beyond every calendar" : due,
                               run.outcome == TRunRecord::cMovedOn ? "moved on" : "removed unrun",
                               run.program, run.parameter));
        history.Add(run);
    }
}

std::unique_ptr<CAddInLibrary> LoadAddIn(const THostOptions& options, CRunHistory& history) {
    CStoreGate gate(options.patience);
    const TTime before = TimeOfNow();
    const TTable table = ReadTableOfGate(before);
    RequireSafeToLoad(table);
    TellMissed(FindMissed(table.tasks, before), history);
    auto library = std::make_unique<CAddInLibrary>(options.addIn);
    gate.Loaded();
    const TTime after = TimeOfNow();
    if (after != before)
        TellMissed(FindMissedMeanwhile(table.tasks, before, after, ReadTableOfGate(after).tasks),
                   history);
    return library;
}
