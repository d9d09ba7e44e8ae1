#include <string>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "base/Sync.h"
#include "client/Change.h"
#include "client/LockForChange.h"
#include "store/Backups.h"
#include "store/CChangeEvent.h"
#include "store/CFormerTable.h"
#include "store/COwnerAccess.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/ForgetLaunches.h"
#include "store/MakeError.h"
#include "store/TableFile.h"
#include "store/WorkerState.h"

namespace vxsched {

void CStore::ReplaceAll(const std::vector<TTaskEntry>& tasks,
                        const std::function<void(const std::string&)>& canReplace) const {
    RequireSharedStore(options);
    std::vector<std::string> warnings;
    while (!TryReplaceAll(tasks, canReplace, warnings))
        WaitForTheTicksEnd(options);
    WakeAfterChange(options);
    for (const std::string& warning : warnings)
        Warn(options, warning);
}

namespace {

// Keeps the message of the first flush that fails on this thread while the object lives.
class CSyncFailure {
public:
    CSyncFailure() {
        gMessage = &message;
        SetSyncFailureListener(Note);
    }
    ~CSyncFailure() { gMessage = nullptr; }
    CSyncFailure(const CSyncFailure&) = delete;
    CSyncFailure& operator=(const CSyncFailure&) = delete;

    const std::string& Message() const { return message; }

private:
    static void Note(const std::string& failure) {
        if (gMessage != nullptr && gMessage->empty())
            *gMessage = failure;
    }

    static inline thread_local std::string* gMessage = nullptr;
    std::string message;
};

}  // namespace

// Opens the event that announces the replacement. Throws CError.
static CChangeEvent OpenChangeEvent() {
    try {
        return CChangeEvent();
    } catch (const CError& error) {
        throw MakeError(error.Code(), "{}; nothing was changed", error.what());
    }
}

// False, without a change, if a tick is under way, whose end would overwrite the new table. The
// caller reports `warnings` after the locks are released: their reader may take its time.
bool CStore::TryReplaceAll(const std::vector<TTaskEntry>& tasks,
                           const std::function<void(const std::string&)>& canReplace,
                           std::vector<std::string>& warnings) const {
    const COwnerAccess ownerAccess(options.directory);
    // Lock order: directory lock (hosts only), writer lock, store mutex. The writer lock keeps other
    // processes from loading the add-in, which would set the mutex free.
    const auto writerLock = LockForChange<CWriterLock>(options.directory, options.lockTimeout);
    const auto mutexLock = LockForChange<CStoreMutexLock>(options.lockTimeout, writerLock);
    if (IsTickUnderWay(options.directory))
        return false;
    CChangeEvent changeEvent = OpenChangeEvent();
    const CSyncFailure syncFailure;
    if (options.onBegin)
        options.onBegin();
    const std::string bytes = ReadTableBytes(options.directory);
    if (canReplace)
        canReplace(bytes);
    // A damaged one must not replace a valid backup. Nor does it show which due times are set anew:
    // its repair may bring back one whose launch it has lost.
    if (IsValidTable(bytes)) {
        KeepBeforeChange(options.directory, bytes);
        ForgetLaunches(options.directory, DecodeTable(bytes, Now()).tasks, tasks);
    }
    // Before the mutex is released, or a tick may save its old list over the new table: before the
    // replacement, since this process may be killed after it, and after it, since the load of a direct
    // client lets a tick in that takes the first one for the former table.
    changeEvent.Announce();
    ReplaceMerged(options.directory, bytes, EncodeTable(tasks), TryToReplaceTable);
    warnings = {changeEvent.Announce(), syncFailure.Message()};
    return true;
}

}  // namespace vxsched
