#include "store/Backups.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <vxsched/Error.h>
#include "store/Layout.h"
#include "store/TableFile.h"
#include "store/TimestampedFiles.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view cQuarantine = cQuarantinePrefix;
constexpr std::size_t cMostQuarantined = 24;

// Newest first. Snapshots are ordered by their names, which stay in order when the clock is set
// back. The backup has no such name; its place among them follows from the modification times.
std::vector<fs::path> FindCandidates(const fs::path& directory) {
    std::vector<fs::path> candidates;
    std::error_code error;
    for (const TTimestampedFile& snapshot :
         FindTimestamped(directory / cSnapshotDirectory, cSnapshotPrefix)) {
        if (fs::is_regular_file(snapshot.path, error))
            candidates.insert(candidates.begin(), snapshot.path);
    }
    const fs::path backup = BackupFile(directory);
    if (!fs::is_regular_file(backup, error))
        return candidates;
    const fs::file_time_type time = fs::last_write_time(backup, error);
    const auto isOlder = [&](const fs::path& snapshot) {
        return fs::last_write_time(snapshot, error) < time;
    };
    candidates.insert(std::find_if(candidates.begin(), candidates.end(), isOlder), backup);
    return candidates;
}

fs::path NextQuarantineFile(const fs::path& directory) {
    const fs::path files = directory / cFilesDirectory;
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

// Removes the copy, unless the table has changed: then the copy may be the only complete one.
void RemoveCopy(const fs::path& quarantine, const fs::path& directory, std::string_view damaged) {
    try {
        if (ReadTableBytes(directory) == damaged)
            unlink(quarantine.c_str());
    } catch (const CError&) {
        // The table cannot be compared: keep the copy.
    }
}

fs::path ReplaceKeepingCopy(const fs::path& directory, std::string_view damaged,
                            std::string_view repaired) {
    fs::path quarantine = Quarantine(directory, damaged);
    try {
        ReplaceOrOverwriteTable(directory, repaired);
    } catch (const CError&) {
        RemoveCopy(quarantine, directory, damaged);
        throw;
    }
    return quarantine;
}

// Needs disk space for the repaired table only. The damaged file gets a second name before it is
// replaced, so nothing may be written into it in place: that would change both.
fs::path ReplaceKeepingLink(const fs::path& directory, std::string_view repaired) {
    std::error_code error;
    const fs::path table = fs::canonical(TableFile(directory), error);
    fs::path quarantine = NextQuarantineFile(directory);
    if (link(table.c_str(), quarantine.c_str()) == -1)
        throw SystemError("cannot quarantine the damaged table as " + quarantine.string(), errno);
    try {
        ReplaceTable(directory, repaired);
    } catch (const CError&) {
        unlink(quarantine.c_str());
        throw;
    }
    RemoveOldest(quarantine.parent_path(), cQuarantine, cMostQuarantined);
    return quarantine;
}

}  // namespace

fs::path ReplaceDamaged(const fs::path& directory, std::string_view damaged,
                        std::string_view repaired) {
    try {
        return ReplaceKeepingCopy(directory, damaged, repaired);
    } catch (const CError&) {
        if (ReadTableBytes(directory) != damaged)
            throw;
    }
    return ReplaceKeepingLink(directory, repaired);
}

}  // namespace vxsched
