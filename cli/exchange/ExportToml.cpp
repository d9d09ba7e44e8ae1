// export --toml: the table as a file of tasks, and what that cannot say.

#include <set>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "cli/commands/Commands.h"
#include "cli/exchange/Losses.h"
#include "cli/exchange/TaskFile.h"

namespace vxsched {

TExitStatus ExportToml(const TCommon& common, COutput& output) {
    bool isComplete = true;
    std::set<std::string_view> names;
    const TTable table = CStore(common.store).Read();
    for (const TTaskEntry& task : table.tasks) {
        try {
            if (!names.insert(task.name).second)
                throw CError(EError::cRefused, "an earlier task has the same name");
            const std::string written = WriteFileTask(common.store.directory, task);
            output.Raw((output.Length() == 0 ? "" : "\n") + written);
        } catch (const CError& error) {
            isComplete = false;
            PrintLosses(task.name, {error.what()});
        }
    }
    return isComplete ? cDone : cRefusedStatus;
}

}  // namespace vxsched
