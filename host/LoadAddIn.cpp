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
    const std::string aside =
        vxsched::ReplaceDamaged(".", bytes, vxsched::EncodeTable(repair.tasks)).string();
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

static void Prepare(vxsched::TTime lastWatch, CRunHistory& history) {
    vxsched::RemoveLeftovers(".");
    const std::vector<TTaskEntry> tasks = MendTable();
    const std::vector<TStartMark> marks = ReadMarks();
    const TPrepared prepared = PrepareTable(tasks, marks, lastWatch, vxsched::Now());
    // The records go first: whatever ends the host in between, a time is rather told twice than lost.
    Tell(prepared, history);
    if (prepared.tasks != tasks)
        vxsched::ReplaceOrOverwriteTable(".", vxsched::EncodeTable(prepared.tasks));
    for (const TStartMark& mark : marks)
        RemoveMark(mark);
}

std::unique_ptr<CAddInLibrary> LoadAddIn(
    const THostOptions& options, vxsched::TTime lastWatch, CRunHistory& history,
    const std::function<std::unique_ptr<CAddInLibrary>()>& load) {
    CStoreGate gate(options.patience);
    try {
        Prepare(lastWatch, history);
    } catch (const vxsched::CClientError& error) {
        throw CHostError(cBadTable,
                         fmt::format("cannot make the table fit to be loaded: {}. It was "
                                     "left as it is.",
                                     error.what()));
    }
    auto library = load();
    gate.Loaded();
    return library;
}
