#include "client/Sources.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "client/CClientError.h"
#include "client/KeptFiles.h"
#include "client/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view cAside = "scheduler.dat.damaged-";
constexpr std::size_t cMostAside = 24;

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

fs::path NextAside(const fs::path& directory) {
    const fs::path folder = directory / "files";
    const TKeptName name = NextName(FindKept(folder, cAside), Now());
    return folder / (std::string(cAside) + std::to_string(name.time) +
                     (name.number > 0 ? '-' + std::to_string(name.number) : ""));
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
    fs::path file = NextAside(directory);
    WriteNewFile(file, bytes, directory);
    RemoveOldest(file.parent_path(), cAside, cMostAside);
    return file;
}

}  // namespace vxsched
