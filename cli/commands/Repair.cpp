// repair: replaces a damaged table by one with every task that can be read.

#include <fmt/format.h>

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "store/Backups.h"
#include "store/CStoreMutexLock.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

std::string TableBytes(const TCommon& common) {
    const CStoreMutexLock lock(common.store.lockTimeout);
    return ReadTableBytes(common.store.directory);
}

}  // namespace

TExitStatus Repair(const TCommon& common, COutput& output) {
    const std::string bytes = TableBytes(common);
    std::optional<TBackup> backup = FindBackup(common.store.directory);
    // The notes end with this name. The path shows that a snapshot is not next to the table.
    if (backup)
        backup->name = backup->file.lexically_relative(common.store.directory).string();
    const TRepair repair = PlanRepair(bytes, backup ? &*backup : nullptr, Now());
    if (repair.notes.empty()) {
        output.Line("the table is valid; nothing to repair");
        return cDone;
    }
    for (const std::string& note : repair.notes)
        output.Line(Show(note).string);
    const std::string count = CountOf(repair.tasks.size(), "task");
    if (common.dryRun) {
        output.Line(fmt::format("would write a table with {}", count));
        return cDone;
    }
    std::string quarantined;
    // ReplaceAll() calls the function with the writer lock and the store mutex held, so the table
    // cannot change between the comparison and the replacement, and a repair that is refused leaves
    // no quarantine file. Planning takes no lock, since it may take long.
    CStore(common.store).ReplaceAll(repair.tasks, [&](const std::string& current) {
        if (current != bytes)
            throw CError(EError::cBusy,
                         "the table changed during the repair; nothing was written; try again");
        quarantined = Quarantine(common.store.directory, bytes).string();
    });
    output.Line(fmt::format("wrote a table with {}; the damaged one is {}", count, quarantined));
    return cDone;
}

}  // namespace vxsched
