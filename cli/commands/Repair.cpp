// repair: sets a wedged store mutex free and replaces a damaged table by one with every task that
// can be read.

#include <fmt/format.h>

#include <chrono>

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include "base/CDeadline.h"
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "store/Backups.h"
#include "store/CMutexHealer.h"
#include "store/COwnerAccess.h"
#include "store/CStoreMutexLock.h"
#include "store/CTableLease.h"
#include "store/CWriterLock.h"
#include "store/LostTasks.h"
#include "store/MakeError.h"
#include "store/StoreOwner.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

constexpr std::chrono::milliseconds cPause(100);

// Sets the store mutex free if it is wedged. Takes the writer lock, and waits until the mutex was
// observed for long enough or is free, at most for the lock timeout; checks at least once.
void HealMutex(const TCommon& common, COutput& output) {
    CMutexHealer healer;
    if (healer.Observe() == CMutexHealer::cFree)
        return;
    const CWriterLock writerLock = [&] {
        const COwnerAccess ownerAccess(common.store.directory);
        return CWriterLock(common.store.directory, common.store.lockTimeout);
    }();
    const CDeadline deadline(common.store.lockTimeout);
    std::string why = fmt::format("a wedged one is set free once it was seen unchanged for {} ms",
                                  CMutexHealer::cUnchangedTime.count());
    do {
        const CMutexHealer::EUse use = healer.Observe();
        if (use == CMutexHealer::cFree)
            return;
        if (use == CMutexHealer::cUnchanged) {
            const CMutexHealer::TResult result = healer.Heal(writerLock);
            if (result.isHealed)
                return output.Line(DescribeHealed(result));
            // A value above 1 keeps nobody waiting.
            if (result.holder && result.value > 1)
                return output.Line("the store mutex lets " + std::to_string(result.value) +
                                   " processes in at once and is left so: " +
                                   Show(Describe(*result.holder)).string);
            if (result.holder)
                why = Describe(*result.holder);
        }
    } while (deadline.Pause(cPause));
    throw MakeError(EError::cBusy,
                    "the store mutex is held and did not become free within {} ms; nothing was "
                    "changed: {}",
                    common.store.lockTimeout.count(), why);
}

std::string TableBytes(const TCommon& common) {
    const CStoreMutexLock lock(common.store.lockTimeout);
    return ReadTableBytes(common.store.directory);
}

}  // namespace

TExitStatus Repair(const TCommon& common, COutput& output) {
    // As the superuser, who alone may inspect every process that may hold the mutex.
    if (!common.dryRun)
        HealMutex(common, output);
    BecomeForeignOwner(common.store.directory);
    const std::string bytes = TableBytes(common);
    std::optional<TBackup> backup = FindBackup(common.store.directory);
    // The notes end with this name. The path shows that a snapshot is not next to the table.
    if (backup)
        backup->name = backup->file.lexically_relative(common.store.directory).string();
    const TRepair repair = PlanRepair(bytes, backup ? &*backup : nullptr, Now());
    if (repair.notes.empty()) {
        const std::optional<std::string> missing = DescribeMissingTable(common.store.directory);
        output.Line(missing ? Show(*missing).string : "the table is valid; nothing to repair");
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
        if (current != bytes || IsBeingSaved(common.store.directory, bytes))
            throw CError(EError::cBusy,
                         "the table changed during the repair; nothing was written; try again");
        quarantined = Quarantine(common.store.directory, bytes).string();
    });
    output.Line(fmt::format("wrote a table with {}; the damaged one is {}", count,
                            Show(quarantined).string));
    return cDone;
}

}  // namespace vxsched
