#include "store/Backups.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <vxsched/Error.h>
#include "store/TableFile.h"
#include "store/TimestampedFiles.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view cQuarantine = "scheduler.dat.damaged-";
constexpr std::size_t cMostQuarantined = 24;

// The youngest first. Among the snapshots their names tell, which a clock that was set back does not
// mislead; where the copy belongs, only times can.
std::vector<fs::path> FindCandidates(const fs::path& directory) {
    std::vector<fs::path> candidates;
    std::error_code error;
    for (const TTimestampedFile& snapshot :
         FindTimestamped(directory / "files" / "snapshots", "scheduler.dat.")) {
        if (fs::is_regular_file(snapshot.path, error))
            candidates.insert(candidates.begin(), snapshot.path);
    }
    const fs::path before = BackupFile(directory);
    if (!fs::is_regular_file(before, error))
        return candidates;
    const fs::file_time_type time = fs::last_write_time(before, error);
    const auto isOlder = [&](const fs::path& snapshot) {
        return fs::last_write_time(snapshot, error) < time;
    };
    candidates.insert(std::find_if(candidates.begin(), candidates.end(), isOlder), before);
    return candidates;
}

fs::path NextQuarantineFile(const fs::path& directory) {
    const fs::path files = directory / "files";
    const TFileTimestamp name = NextTimestamp(FindTimestamped(files, cQuarantine), Now());
    return files / (std::string(cQuarantine) + std::to_string(name.time) +
                    (name.number > 0 ? '-' + std::to_string(name.number) : ""));
}

}  // namespace

std::optional<TBackup> FindBackup(const fs::path& directory) {
    for (const fs::path& file : FindCandidates(directory)) {
        try {
            return TBackup{file.filename().string(), DecodeIntactTable(ReadBytes(file), Now()),
                           file};
        } catch (const CError&) {
            continue;
        }
    }
    return {};
}

fs::path Quarantine(const fs::path& directory, std::string_view bytes) {
    fs::path file = NextQuarantineFile(directory);
    WriteNewFile(file, bytes, directory);
    RemoveOldest(file.parent_path(), cQuarantine, cMostQuarantined);
    return file;
}

namespace {

// Unless something of the table was changed already, and the copy is the only whole one.
void RemoveCopy(const fs::path& aside, const fs::path& directory, std::string_view damaged) {
    try {
        if (ReadBytes(TableFile(directory)) == damaged)
            unlink(aside.c_str());
    } catch (const CError&) {
        // Nobody knows what the table is now.
    }
}

fs::path ReplaceBesideACopy(const fs::path& directory, std::string_view damaged,
                            std::string_view sound) {
    fs::path aside = Quarantine(directory, damaged);
    try {
        ReplaceOrOverwriteTable(directory, sound);
    } catch (const CError&) {
        RemoveCopy(aside, directory, damaged);
        throw;
    }
    return aside;
}

// Takes no room but for the sound one. Nothing may be written into the file under either name.
fs::path ReplaceBesideALink(const fs::path& directory, std::string_view sound) {
    std::error_code error;
    const fs::path table = fs::canonical(TableFile(directory), error);
    fs::path aside = NextQuarantineFile(directory);
    if (link(table.c_str(), aside.c_str()) == -1)
        throw SystemError("cannot keep the damaged table as " + aside.string(), errno);
    try {
        ReplaceTable(directory, sound);
    } catch (const CError&) {
        unlink(aside.c_str());
        throw;
    }
    RemoveOldest(aside.parent_path(), cQuarantine, cMostQuarantined);
    return aside;
}

}  // namespace

fs::path ReplaceDamaged(const fs::path& directory, std::string_view damaged,
                        std::string_view sound) {
    try {
        return ReplaceBesideACopy(directory, damaged, sound);
    } catch (const CError&) {
        if (ReadBytes(TableFile(directory)) != damaged)
            throw;
    }
    return ReplaceBesideALink(directory, sound);
}

}  // namespace vxsched
