#include "store/Backups.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

#include <vxsched/Error.h>
#include "base/Sync.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t cMostQuarantined = 24;
// Names made here have fewer digits, and larger numbers might overflow when counted up.
constexpr std::size_t cMostDigits = 18;

// What distinguishes the files of one kind, and orders them: TIME, and NUMBER or 0.
using TStamp = std::pair<std::uint64_t, std::uint64_t>;

struct TStamped {
    TStamp stamp;
    fs::path path;
};

// Where the files of one kind are, and how their names begin and end.
struct TSeries {
    fs::path directory;
    std::string_view prefix;
    std::string (*stampName)(const TStamp& stamp);
};

std::string PaddedName(const TStamp& stamp) {
    const auto padded = [](const std::string& digits, std::size_t width) {
        return std::string(width - std::min(width, digits.size()), '0') + digits;
    };
    return padded(std::to_string(stamp.first), 12) + '-' + padded(std::to_string(stamp.second), 6);
}

std::string ShortName(const TStamp& stamp) {
    return std::to_string(stamp.first) +
           (stamp.second > 0 ? '-' + std::to_string(stamp.second) : "");
}

fs::path BeforeChange(const fs::path& directory) {
    return directory / cBackupFile;
}

TSeries Snapshots(const fs::path& directory) {
    return {directory / cSnapshotDirectory, cSnapshotPrefix, PaddedName};
}

TSeries QuarantineOf(const fs::path& directory) {
    return {directory / cFilesDirectory, cQuarantinePrefix, ShortName};
}

bool TakeNumber(std::string_view& string, std::uint64_t& number) {
    const std::size_t digits = std::min(string.find_first_not_of("0123456789"), string.size());
    if (digits == 0 || digits > cMostDigits)
        return false;
    std::from_chars(string.data(), string.data() + digits, number);
    string.remove_prefix(digits);
    return true;
}

std::optional<TStamp> StampIn(std::string_view string) {
    TStamp stamp;
    if (!TakeNumber(string, stamp.first))
        return {};
    if (string.starts_with('-')) {
        string.remove_prefix(1);
        if (!TakeNumber(string, stamp.second))
            return {};
    }
    return string.empty() ? std::optional(stamp) : std::nullopt;
}

// Youngest first. Empty if the directory cannot be read.
std::vector<TStamped> Find(const TSeries& series) {
    std::vector<TStamped> found;
    std::error_code error;
    for (fs::directory_iterator entry(series.directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string file = entry->path().filename().string();
        if (!file.starts_with(series.prefix))
            continue;
        if (const auto stamp = StampIn(std::string_view(file).substr(series.prefix.size())))
            found.push_back({*stamp, entry->path()});
    }
    std::sort(found.begin(), found.end(),
              [](const TStamped& one, const TStamped& other) { return one.stamp > other.stamp; });
    return found;
}

// The path of the next file: its stamp is now, or the first that is younger than every other.
fs::path NextFile(const TSeries& series) {
    const auto now = std::max<std::int64_t>(Now().time_since_epoch().count(), 0);
    TStamp stamp{static_cast<std::uint64_t>(now), 0};
    const std::vector<TStamped> found = Find(series);
    if (!found.empty() && found.front().stamp >= stamp)
        stamp = {found.front().stamp.first, found.front().stamp.second + 1};
    return series.directory / (std::string(series.prefix) + series.stampName(stamp));
}

// Files that cannot be removed stay.
void RemoveAllBut(std::size_t most, const TSeries& series) {
    const std::vector<TStamped> found = Find(series);
    for (std::size_t index = most; index < found.size(); ++index)
        unlink(found[index].path.c_str());
}

void AddFile(std::vector<TBackupFile>& files, TBackupFile::EKind kind, const fs::path& path) {
    std::error_code error;
    const bool isFile = fs::is_regular_file(path, error);
    const fs::file_time_type time = fs::last_write_time(path, error);
    if (isFile && !error)
        files.push_back({kind,
                         std::chrono::time_point_cast<std::chrono::system_clock::duration>(
                             fs::file_time_type::clock::to_sys(time)),
                         path});
}

std::vector<TBackupFile> FilesOf(const TSeries& series, TBackupFile::EKind kind) {
    std::vector<TBackupFile> files;
    for (const TStamped& found : Find(series))
        AddFile(files, kind, found.path);
    return files;
}

// Merges two lists by time. Each keeps its own order, also where its times contradict that.
std::vector<TBackupFile> Merge(std::vector<TBackupFile> one, std::vector<TBackupFile> other) {
    std::vector<TBackupFile> merged;
    auto next = other.begin();
    for (TBackupFile& file : one) {
        while (next != other.end() && next->time > file.time)
            merged.push_back(std::move(*next++));
        merged.push_back(std::move(file));
    }
    merged.insert(merged.end(), std::make_move_iterator(next),
                  std::make_move_iterator(other.end()));
    return merged;
}

// Makes the youngest snapshot as young as now if it holds `bytes`.
bool RefreshYoungest(const TSeries& snapshots, std::string_view bytes) {
    const std::vector<TStamped> found = Find(snapshots);
    std::error_code error;
    if (found.empty() || fs::file_size(found.front().path, error) != bytes.size())
        return false;
    try {
        if (ReadBytes(found.front().path) != bytes)
            return false;
    } catch (const CError&) {
        return false;
    }
    return utimensat(AT_FDCWD, found.front().path.c_str(), nullptr, 0) == 0;
}

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
    fs::path quarantine = NextFile(QuarantineOf(directory));
    if (link(table.c_str(), quarantine.c_str()) == -1)
        throw SystemError("cannot quarantine the damaged table as " + quarantine.string(), errno);
    try {
        ReplaceTable(directory, repaired);
    } catch (const CError&) {
        unlink(quarantine.c_str());
        throw;
    }
    RemoveAllBut(cMostQuarantined, QuarantineOf(directory));
    return quarantine;
}

// False also if one of the files does not exist.
bool HaveOneOwner(const fs::path& one, const fs::path& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_uid == second.st_uid;
}

}  // namespace

std::vector<TBackupFile> ListBackups(const fs::path& directory) {
    std::vector<TBackupFile> before;
    AddFile(before, TBackupFile::cBeforeChange, BeforeChange(directory));
    return Merge(Merge(FilesOf(Snapshots(directory), TBackupFile::cSnapshot), std::move(before)),
                 FilesOf(QuarantineOf(directory), TBackupFile::cQuarantined));
}

std::optional<TBackup> FindBackup(const fs::path& directory) {
    for (const TBackupFile& file : ListBackups(directory)) {
        if (file.kind == TBackupFile::cQuarantined)
            continue;
        try {
            return TBackup{file.path.filename().string(),
                           DecodeTable(ReadBytes(file.path), Now()).tasks, file.path};
        } catch (const CError&) {
            continue;
        }
    }
    return {};
}

void KeepBeforeChange(const fs::path& directory, std::string_view bytes) {
    WriteNewFile(BeforeChange(directory), bytes, directory);
}

void RestoreBeforeChange(const fs::path& directory) {
    const fs::path before = BeforeChange(directory);
    std::error_code ignored;
    const bool isLink = fs::is_symlink(TableFile(directory), ignored);
    if (!fs::exists(before, ignored))
        throw SystemError("cannot restore the backup " + before.string(), ENOENT);
    const std::string bytes = ReadBytes(before);
    DecodeTable(bytes, Now());
    // A rename would replace the link, and leave its target damaged; and it would give the table to
    // the member of the store's group who has made the change.
    if (isLink || !HaveOneOwner(before, TableFile(directory)))
        ReplaceOrOverwriteTable(directory, bytes);
    else
        RenameToTable(before, directory);
}

void KeepSnapshot(const fs::path& directory, std::string_view bytes, std::size_t most) {
    const TSeries snapshots = Snapshots(directory);
    if (most == 0 || RefreshYoungest(snapshots, bytes))
        return;
    std::error_code ignored;
    if (!fs::exists(snapshots.directory, ignored)) {
        if (const int error = MakePrivateDirectory(snapshots.directory, directory); error != 0)
            throw SystemError("cannot create " + snapshots.directory.string(), error);
        SyncDirectory(snapshots.directory.parent_path().c_str());
    }
    WriteNewFile(NextFile(snapshots), bytes, directory);
    RemoveAllBut(most, snapshots);
}

fs::path Quarantine(const fs::path& directory, std::string_view bytes) {
    fs::path file = NextFile(QuarantineOf(directory));
    WriteNewFile(file, bytes, directory);
    RemoveAllBut(cMostQuarantined, QuarantineOf(directory));
    return file;
}

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
