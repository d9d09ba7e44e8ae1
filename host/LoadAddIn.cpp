#include "host/LoadAddIn.h"

#include <fmt/format.h>

#include "client/CClientError.h"
#include "client/Salvage.h"
#include "client/Sources.h"
#include "client/TableFile.h"
#include "host/CHostError.h"
#include "host/CHostLog.h"
#include "host/CStoreGate.h"
#include "host/PrepareTable.h"
#include "host/StartMarks.h"

using vxsched::TTaskEntry;

static void TellWhatIsUnusual(const std::string& bytes) {
    for (const vxsched::TProblem& problem : vxsched::DecodeTable(bytes, vxsched::Now()).problems) {
        if (problem.kind == vxsched::TProblem::cUnusual)
            LogWarning(fmt::format("in the table, at offset {}: {}", problem.offset, problem.text));
    }
}

// Makes the file a table that is sound and harmless, if it is none.
static std::vector<TTaskEntry> MendTable() {
    const std::string bytes = vxsched::ReadTableBytes(".");
    vxsched::TRepair repair = vxsched::PlanRepair(bytes, nullptr, vxsched::Now());
    if (repair.notes.empty()) {
        TellWhatIsUnusual(bytes);
        return std::move(repair.tasks);
    }
    if (const std::optional<vxsched::TSource> source = vxsched::FindSource("."))
        repair = vxsched::PlanRepair(bytes, &*source, vxsched::Now());
    for (const std::string& note : repair.notes)
        LogError(note);
    const std::string aside = vxsched::PutAside(".", bytes).string();
    vxsched::ReplaceOrOverwriteTable(".", vxsched::EncodeTable(repair.tasks));
    LogError(fmt::format("the table is mended, with {} task(s); the former one is {}",
                         repair.tasks.size(), aside));
    return std::move(repair.tasks);
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
static vxsched::TTime Prepare(const std::optional<TWatch>& former, CRunHistory& history) {
    vxsched::RemoveLeftovers(".");
    const std::vector<TTaskEntry> tasks = MendTable();
    const std::vector<TStartMark> marks = ReadMarks();
    const vxsched::TTime now = vxsched::Now();
    const TPrepared prepared = PrepareTable(tasks, marks, former, now);
    if (prepared.tasks != tasks)
        vxsched::ReplaceOrOverwriteTable(".", vxsched::EncodeTable(prepared.tasks));
    Tell(prepared, history);
    for (const TStartMark& mark : marks)
        RemoveMark(mark);
    return BeginningOfWatch(prepared, now);
}

TLoaded LoadAddIn(const THostOptions& options, const std::optional<TWatch>& former,
                  CRunHistory& history,
                  const std::function<std::unique_ptr<CAddInLibrary>()>& load) {
    CStoreGate gate(options.patience);
    TLoaded loaded;
    try {
        loaded.watchSince = Prepare(former, history);
    } catch (const vxsched::CClientError& error) {
        throw CHostError(cBadTable,
                         fmt::format("cannot make the table fit to be loaded: {}. It was "
                                     "left as it is.",
                                     error.what()));
    }
    loaded.library = load();
    gate.Loaded();
    return loaded;
}
