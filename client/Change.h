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

// What came of calls that were made.
struct TOutcome {
    TTable table;                  // as it was read back
    std::string program;           // of the task that was created, as it is in the table
    std::vector<std::string> log;  // the add-in's messages
    pid_t process = 0;             // that was started
    std::string startError;        // why none was, if one should have been
    std::optional<int> status;     // of the process, if its end was waited for
};

// A task that mustBeAsSeen is not any more; nothing was changed.
class CChangedMeanwhile : public CError {
public:
    explicit CChangedMeanwhile(const std::string& name)
        : CError(EError::cBusy, "task \"" + name + "\" is being changed by others; try again") {}
};

// Throws CError (cNoScheduler) when the scheduling process of the directory runs in another IPC
// namespace, where it would not notice a change and write over it.
void RequireSharedStore(const TStoreOptions& options);

// Has a change process make the calls, under the rules that CStore states, and wakes the scheduling
// process afterwards. `onStart` is told a started process at once, and must not
// throw. That the table is as the calls
// mean it is for the caller to see. Throws CClientError.
TOutcome MakeChange(const TStoreOptions& options, const std::vector<TCall>& calls,
                    const std::function<void(pid_t)>& onLaunch = {});

}  // namespace vxsched
