#include "store/ForgetLaunches.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>
#include <vector>

#include "store/Layout.h"
#include "store/TaskFileName.h"

namespace vxsched {

namespace fs = std::filesystem;

void ForgetLaunches(const std::string& task, TTime due) {
    const std::string name = fmt::format("{}@{}", FileNameOf(task), due.time_since_epoch().count());
    std::vector<fs::path> records;
    for (const char* const directory : {cLaunchRecordDirectory, cSettledLaunchDirectory}) {
        std::error_code error;
        for (fs::directory_iterator entry(directory, error);
             !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const std::string found = entry->path().filename().string();
            if (found == name || found.starts_with(name + '@'))
                records.push_back(entry->path());
        }
    }
    for (const fs::path& record : records) {
        std::error_code ignored;
        fs::remove(record, ignored);
    }
}

}  // namespace vxsched
