#include "cli/commands/RequireTask.h"

#include "cli/commands/Commands.h"
#include "store/NoSuchTask.h"

namespace vxsched {

TTaskEntry RequireTask(const TCommon& common, const std::string& name) {
    const TTable table = CStore(common.store).Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw NoSuchTask(name, table, "nor is there a record of a run of it; see vxsched list");
    return *task;
}

}  // namespace vxsched
