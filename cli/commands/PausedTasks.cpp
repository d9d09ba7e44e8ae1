#include "cli/commands/PausedTasks.h"

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/TableFile.h"

namespace vxsched {

std::optional<std::set<std::string>> FindPausedTasks(const std::filesystem::path& directory) {
    std::set<std::string> paused;
    try {
        for (const TTaskEntry& task : DecodeTable(ReadTableBytes(directory), Now()).tasks) {
            if (task.paused)
                paused.insert(task.name);
        }
    } catch (const CError&) {
        return {};
    }
    return paused;
}

}  // namespace vxsched
