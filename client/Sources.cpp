#include "client/Sources.h"

#include <algorithm>
#include <functional>
#include <system_error>
#include <tuple>

#include "client/CClientError.h"
#include "client/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

struct TCandidate {
    fs::file_time_type time;
    fs::path file;

    // The names of the snapshots are in the order of their making, should their times be the same.
    bool operator>(const TCandidate& other) const {
        return std::tie(time, file) > std::tie(other.time, other.file);
    }
};

std::vector<TCandidate> FindCandidates(const fs::path& directory) {
    std::vector<TCandidate> candidates;
    const auto add = [&](const fs::path& file) {
        std::error_code error;
        const fs::file_time_type time = fs::last_write_time(file, error);
        if (!error && fs::is_regular_file(file, error))
            candidates.push_back({time, file});
    };
    add(TableBefore(directory));
    std::error_code error;
    for (fs::directory_iterator entry(directory / "files" / "snapshots", error);
         !error && entry != fs::directory_iterator(); entry.increment(error))
        add(entry->path());
    std::sort(candidates.begin(), candidates.end(), std::greater<>());
    return candidates;
}

}  // namespace

std::optional<TSource> FindSource(const fs::path& directory) {
    for (const auto& [time, file] : FindCandidates(directory)) {
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
