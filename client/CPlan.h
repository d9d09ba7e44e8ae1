#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/StoreOptions.h>
#include <vxsched/Table.h>
#include "client/ApplyCalls.h"
#include "client/Change.h"
#include "client/Request.h"

namespace vxsched {

// The calls of a change, as they are found: some depend on the table. For one attempt.
class CPlan {
public:
    explicit CPlan(const TStoreOptions& storeOptions) : options(storeOptions) {}

    const TStoreOptions& Options() const { return options; }

    // The tasks as the calls so far would leave them. Reads the table at its first call, which waits for
    // the store mutex. Throws CError as ReadTable() does.
    CNamedTasks& Tasks();

    // Adds a call. Once the table was read, throws CError if the call cannot be made.
    void Add(TCall call);

    // Notes a task that the change leaves as it is.
    void Keep(const TTaskEntry& task) { Note(task.name) = task; }

    const std::vector<TCall>& Calls() const { return calls; }

    // The tasks that the change has left, in the order in which they were first noted: as they are among
    // `tasks`, or as a call has made them.
    std::vector<TTaskEntry> Left(CNamedTasks& tasks) const;

private:
    std::optional<TTaskEntry>& Note(const std::string& name);
    void Apply(const TCall& call);

    struct TNoted {
        std::string name;
        std::optional<TTaskEntry> task;
        bool isRemoved = false;
    };

    const TStoreOptions& options;
    std::vector<TCall> calls;
    std::optional<CAppliedCalls> applied;
    std::vector<TNoted> noted;
    std::map<std::string, std::size_t, std::less<>> indices;  // of the noted ones, by name
};

// Returns the name of a task of the calls that the outcome's table does not show as changed; empty if it
// shows the whole change. `since`: when the change began.
std::optional<std::string> FindMissing(const TOutcome& outcome, const std::vector<TCall>& calls,
                                       TTime since);

}  // namespace vxsched
