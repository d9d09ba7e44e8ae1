#include "store/OwedLaunches.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include <vxsched/Error.h>
#include "store/Layout.h"
#include "store/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

std::optional<TOwedLaunch> ReadOwedLaunch(const fs::path& file) {
    const std::string bytes = ReadBytes(file);
    if (bytes.empty())
        return {};
    const std::vector<TTaskEntry> tasks = DecodeTable(bytes, Now()).tasks;
    if (tasks.size() != 1)
        return {};
    const TTaskEntry& task = tasks.front();
    // Not of a file that is being written, which has another name.
    if (!file.filename().string().ends_with(
            fmt::format("@{}", task.next.time_since_epoch().count())))
        return {};
    return TOwedLaunch{.task = task.name,
                       .due = task.next,
                       .program = task.program,
                       .parameter = task.parameter,
                       .period = task.period,
                       .formerStart = task.last};
}

std::vector<TOwedLaunch> FindOwedLaunches(const fs::path& directory) {
    std::vector<TOwedLaunch> launches;
    std::error_code error;
    for (fs::directory_iterator entry(directory / cOwedLaunchDirectory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        try {
            if (std::optional<TOwedLaunch> launch = ReadOwedLaunch(entry->path()))
                launches.push_back(*std::move(launch));
        } catch (const CError&) {
            // Being removed or written at this moment, or not for this user.
        }
    }
    std::sort(launches.begin(), launches.end(),
              [](const TOwedLaunch& one, const TOwedLaunch& other) { return one.due < other.due; });
    return launches;
}

}  // namespace vxsched
