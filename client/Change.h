#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/CClientError.h"
#include "client/StoreOptions.h"
#include "client/Table.h"
#include "client/change/Request.h"

namespace vxsched {

// What came of calls that were made.
struct TOutcome {
    TTable table;                  // as it was read back
    std::vector<std::string> log;  // the add-in's messages
    pid_t process = 0;             // that was started
    std::string startError;        // why none was, if one should have been
    std::optional<int> status;     // of the process, if its end was waited for
};

// A task that mustBeAsSeen is not any more; nothing was changed.
class CChangedMeanwhile : public CClientError {
public:
    explicit CChangedMeanwhile(const std::string& name)
        : CClientError(EError::cBusy,
                       "task \"" + name + "\" is being changed by others; try again") {}
};

// A link that the calls give a task as its program.
struct TLink {
    std::string path;
    std::string target;
};

// Has a change process make the calls, under the rules that CStore states, and wakes the scheduling
// process afterwards. `onStart` is told a started process at once. That the table is as the calls
// mean it is for the caller to see. Throws CClientError.
TOutcome MakeChange(const TStoreOptions& options, const std::vector<TCall>& calls,
                    const TLink& link = {}, const std::function<void(pid_t)>& onStart = {});

}  // namespace vxsched
