#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Error.h>
#include <vxsched/StoreOptions.h>
#include <vxsched/Table.h>
#include "client/Request.h"

namespace vxsched {

// The result of a change.
struct TOutcome {
    TTable table;                  // read back after the calls
    std::string program;           // of a created task, as in the table
    std::vector<std::string> log;  // the add-in's messages
    pid_t process = 0;             // the launched program; 0: none
    std::string launchError;       // why a launch failed
    std::optional<int> status;     // the program's wait status, if it was waited for
};

// A task differs from TCall::seen; nothing was changed.
class CChangedMeanwhile : public CError {
public:
    explicit CChangedMeanwhile(const std::string& name)
        : CError(EError::cBusy,
                 "task \"" + name +
                     "\" is being changed by other processes; nothing was changed; try again") {}
};

// Throws CError (cNoScheduler) if the scheduling process of the directory runs in another IPC
// namespace: it would not notice a change and would overwrite it. Does not block.
void RequireSharedStore(const TStoreOptions& options);

// Makes the calls in a change process, by the rules of CStore (locks, blocking, failure), and wakes
// the scheduling process afterwards. The caller holds neither the writer lock nor the store mutex.
// `onLaunch` is called with the process id right after a launch, on the calling thread; it must not
// throw. Whether the table has the change is for the caller to check. Throws CError, also
// CChangedMeanwhile.
TOutcome MakeChange(const TStoreOptions& options, const std::vector<TCall>& calls,
                    const std::function<void(pid_t)>& onLaunch = {});

}  // namespace vxsched
