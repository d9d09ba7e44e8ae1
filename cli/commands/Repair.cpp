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
    return ReadBytes(TableFile(common.store.directory));
}

}  // namespace

int Repair(const TCommon& common, COutput& output) {
    const std::string bytes = TableBytes(common);
    const std::optional<TBackup> backup = FindBackup(common.store.directory);
    const TRepair repair = PlanRepair(bytes, backup ? &*backup : nullptr, Now());
    if (repair.notes.empty()) {
        output.Line("the table is valid; nothing to repair");
        return 0;
    }
    for (const std::string& note : repair.notes)
        output.Line(Show(note).text);
    const std::string count =
        fmt::format("{} task{}", repair.tasks.size(), repair.tasks.size() == 1 ? "" : "s");
    if (common.dryRun) {
        output.Line(fmt::format("would write a table with {}", count));
        return 0;
    }
    const std::string quarantined = Quarantine(common.store.directory, bytes).string();
    CStore(common.store).ReplaceAll(repair.tasks, [&](const std::string& current) {
        if (current != bytes)
            throw CError(EError::cBusy,
                         "the table changed during the repair; nothing was written; try again");
    });
    output.Line(fmt::format("wrote a table with {}; the damaged one is {}", count, quarantined));
    return 0;
}

}  // namespace vxsched
