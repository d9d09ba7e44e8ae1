#include "store/ForgetLaunches.h"

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "store/Layout.h"
#include "store/TaskFileName.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> FindRecords(const fs::path& directory) {
    std::vector<fs::path> records;
    for (const char* const place : {cLaunchRecordDirectory, cSettledLaunchDirectory}) {
        std::error_code error;
        for (fs::directory_iterator entry(directory / place, error);
             !error && entry != fs::directory_iterator(); entry.increment(error)) {
            if (entry->path().filename().string().find('@') != std::string::npos)
                records.push_back(entry->path());
        }
    }
    return records;
}

// "NAME@DUE", as the name of a record begins.
std::string LaunchOf(const TTaskEntry& task) {
    return fmt::format("{}@{}", FileNameOf(task.name), task.next.time_since_epoch().count());
}

// The same of a record, NAME@DUE or NAME@DUE@FORMER. The encoded name has no '@'.
std::string LaunchOf(const fs::path& record) {
    const std::string name = record.filename().string();
    return name.substr(0, name.find('@', name.find('@') + 1));
}

std::unordered_set<std::string> FindNewLaunches(const std::vector<TTaskEntry>& before,
                                                const std::vector<TTaskEntry>& after) {
    std::unordered_map<std::string_view, TTime> former;
    for (const TTaskEntry& task : before)
        former.emplace(task.name, task.next);
    std::unordered_set<std::string> launches;
    for (const TTaskEntry& task : after) {
        const auto found = former.find(task.name);
        if (found == former.end() || found->second != task.next)
            launches.insert(LaunchOf(task));
    }
    return launches;
}

}  // namespace

void ForgetLaunches(const fs::path& directory, const std::vector<TTaskEntry>& before,
                    const std::vector<TTaskEntry>& after) {
    const std::vector<fs::path> records = FindRecords(directory);
    if (records.empty())
        return;
    const std::unordered_set<std::string> launches = FindNewLaunches(before, after);
    for (const fs::path& record : records) {
        std::error_code ignored;
        if (launches.contains(LaunchOf(record)))
            fs::remove(record, ignored);
    }
}

}  // namespace vxsched
