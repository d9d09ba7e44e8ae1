#include "client/Sources.h"

#include <algorithm>
#include <system_error>
#include <vector>

#include "client/CClientError.h"
#include "client/KeptFiles.h"
#include "client/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// The youngest first. Among the snapshots their names tell, which a clock that was set back does not
// mislead; where the copy belongs, only times can.
std::vector<fs::path> FindCandidates(const fs::path& directory) {
    std::vector<fs::path> candidates;
    std::error_code error;
    for (const TKeptFile& snapshot :
         FindKept(directory / "files" / "snapshots", "scheduler.dat.")) {
        if (fs::is_regular_file(snapshot.path, error))
            candidates.insert(candidates.begin(), snapshot.path);
    }
    const fs::path before = TableBefore(directory);
    if (!fs::is_regular_file(before, error))
        return candidates;
    const fs::file_time_type time = fs::last_write_time(before, error);
    const auto isOlder = [&](const fs::path& snapshot) {
        return fs::last_write_time(snapshot, error) < time;
    };
    candidates.insert(std::find_if(candidates.begin(), candidates.end(), isOlder), before);
    return candidates;
}

}  // namespace

std::optional<TSource> FindSource(const fs::path& directory) {
    for (const fs::path& file : FindCandidates(directory)) {
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
    std::error_code ignored;
    for (int number = 2; fs::exists(file, ignored); ++number)
        file = base + '-' + std::to_string(number);
    WriteNewFile(file, bytes, directory);
    return file;
}

}  // namespace vxsched
