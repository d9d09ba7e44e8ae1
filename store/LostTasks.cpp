#include "store/LostTasks.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <system_error>
#include <vector>

#include <vxsched/Repair.h>
#include "store/Backups.h"
#include "store/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

// Returns the names of the tasks that should still be in the table. One that runs once and was due
// may have run since the backup was made.
static std::vector<std::string> NamesOfComingTasks(const std::vector<TTaskEntry>& tasks) {
    const TTime now = Now();
    std::vector<std::string> names;
    for (const TTaskEntry& task : tasks) {
        if (task.period != 0 || task.next > now)
            names.push_back(fmt::format("\"{}\"", task.name));
    }
    return names;
}

std::optional<std::string> DescribeLostTasks(const fs::path& directory, std::string_view state) {
    const std::optional<TBackup> backup = FindBackup(directory);
    const std::vector<std::string> names =
        NamesOfComingTasks(backup ? backup->tasks : std::vector<TTaskEntry>());
    if (names.empty())
        return {};
    return fmt::format(
        "the table is {}, but its latest backup, {}, has {} task(s): {}. If they were not "
        "removed on purpose, stop vxschedd, copy that file over {}, and start vxschedd again.",
        state, backup->file.string(), names.size(), fmt::join(names, ", "),
        TableFile(directory).string());
}

std::optional<std::string> DescribeMissingTable(const fs::path& directory) {
    std::error_code error;
    if (fs::symlink_status(TableFile(directory), error).type() != fs::file_type::not_found)
        return {};
    return DescribeLostTasks(directory, "missing");
}

}  // namespace vxsched
