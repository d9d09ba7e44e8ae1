#include "cli/commands/RequireTask.h"

#include "cli/commands/Commands.h"
#include "store/NoSuchTask.h"

namespace vxsched {

void RequireTask(const TCommon& common, const std::string& name) {
    const TTable table = CStore(common.store).Read();
    if (table.Find(name) == nullptr)
        throw NoSuchTask(name, table, "nor is there a record of a run of it; see vxsched list");
}

}  // namespace vxsched
