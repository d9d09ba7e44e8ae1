#include "client/Sources.h"

#include <algorithm>
#include <system_error>

#include "client/CClientError.h"
#include "client/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

std::optional<TSource> FindSource(const fs::path& directory) {
    std::error_code ignored;
    std::vector<fs::path> files = {TableBefore(directory)};
    for (const auto& entry : fs::directory_iterator(directory / "files" / "snapshots", ignored))
        files.push_back(entry.path());
    files.erase(
        std::remove_if(files.begin(), files.end(),
                       [&](const fs::path& file) { return !fs::is_regular_file(file, ignored); }),
        files.end());
    // The names of the snapshots are in the order of their making, should their times be the same.
    std::sort(files.begin(), files.end(), [&](const fs::path& first, const fs::path& second) {
        const auto firstTime = fs::last_write_time(first, ignored);
        const auto secondTime = fs::last_write_time(second, ignored);
        return std::tie(firstTime, first) > std::tie(secondTime, second);
    });
    for (const fs::path& file : files) {
        try {
            return TSource{file.filename().string(), DecodeWholeTable(ReadBytes(file), Now())};
        } catch (const CClientError&) {
            continue;
        }
    }
    return {};
}

fs::path PutAside(const fs::path& directory, std::string_view bytes) {
    const std::string base = TableFile(directory).string() + ".damaged-" +
                             std::to_string(Now().time_since_epoch().count());
    fs::path file = base;
    for (int number = 2; fs::exists(file); ++number)
        file = base + '-' + std::to_string(number);
    WriteNewFile(file, bytes, directory);
    return file;
}

}  // namespace vxsched
