#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include <vxsched/StoreOptions.h>
#include <vxsched/Table.h>
#include "client/Request.h"
#include "store/MakeError.h"

namespace vxsched {

// The result of a change.
struct TOutcome {
    TTable table;                  // read back after the calls
    std::vector<std::string> log;  // the add-in's messages
    TRun run;                      // of the launched program; its process is 0 if there is none
    std::optional<std::string> launchError;    // why a launch failed
    std::optional<std::string> launchUnknown;  // why it is not known whether it was made
    std::vector<std::string> warnings;         // of what failed after the change was made
};

// A task differs from TCall::seen; nothing was changed.
class CChangedMeanwhile : public CError {
public:
    explicit CChangedMeanwhile(const std::string& name)
        : CError(MakeError(EError::cBusy,
                           "task \"{}\" is being changed by other processes; nothing was changed; "
                           "try again",
                           name)) {}
};

// Throws CError (cNoScheduler) if the scheduling process of the directory runs in another IPC
// namespace: it would not notice a change and would overwrite it. Does not block.
void RequireSharedStore(const TStoreOptions& options);

// A change and how to see that it was made.
struct TChange {
    std::vector<TCall> calls;
    // Returns the name of a task that the outcome's table does not show as changed; empty if it
    // shows the whole change.
    std::function<std::optional<std::string>(const TOutcome&)> findMissing;
    // Called right after a launch, on the calling thread; must not throw.
    std::function<void(const TRun&)> onLaunch = {};
    // A stream socket that gets what the launched program writes; -1: none. The caller keeps it.
    int output = -1;
};

// Throws what MakeChange() would throw before it begins, without a change: for dry runs. A due task is
// not waited for, and TCall::seen not checked. Waits for the store mutex. The caller does not hold it.
void CheckChange(const TStoreOptions& options, const std::vector<TCall>& calls);

// Before a change: waits until the worker is between two ticks, or the scheduling process has ended; a
// tick would overwrite what is written while a direct client has set its mutex free. Waits at most
// the lock timeout. Throws CError (cBusy). The caller holds neither the writer lock nor the store mutex.
void WaitForTheTicksEnd(const TStoreOptions& options);

// Reports what has failed after a change was made, by TStoreOptions::onWarning; nothing if
// `warning` is empty.
void Warn(const TStoreOptions& options, const std::string& warning);

// Has the scheduling process, if there is one, take up a change that is made. A failure is a
// warning. Does not block.
void WakeAfterChange(const TStoreOptions& options);

// Makes the change in a change process, by the rules of CStore (locks, blocking, failure), and
// wakes the scheduling process afterwards. The caller holds neither the writer lock nor the store
// mutex. Returns once the table shows the change, also if the change process was killed after it
// had saved. A change that a tick has overwritten is made again. Throws CError, also
// CChangedMeanwhile; cUnknown if the change was begun and may have been made or not.
TOutcome MakeChange(const TStoreOptions& options, const TChange& change);

}  // namespace vxsched
