#include "host/recovery/LaunchRecords.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>

#include <vxsched/Error.h>
#include "base/Sync.h"
#include "host/CHostLog.h"
#include "host/TaskFileName.h"
#include "store/Grid.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

using vxsched::cLaunchRecordDirectory;
using vxsched::TTaskEntry;
using vxsched::TTime;

bool TLaunchRecord::IsOf(const std::string& name, TTime time) const {
    return due == time && task == FileNameOf(name);
}

bool MakeLaunchRecordDirectory() {
    if (mkdir(cLaunchRecordDirectory, 0700) == 0) {
        SyncDirectory(vxsched::cFilesDirectory);
        return true;
    }
    if (errno == EEXIST)
        return true;
    LogWarning(
        fmt::format("cannot create {}: {}. If this host is killed during a tick, the next one may "
                    "launch programs a second time.",
                    cLaunchRecordDirectory, std::strerror(errno)));
    return false;
}

static std::string PathOf(const std::string& name, TTime due) {
    return fmt::format("{}/{}@{}", cLaunchRecordDirectory, name, due.time_since_epoch().count());
}

std::string LaunchRecordPath(const std::string& task, TTime due) {
    return PathOf(FileNameOf(task), due);
}

static std::optional<TLaunchRecord> ReadLaunchRecord(const fs::path& path) {
    const std::string name = path.filename().string();
    const std::size_t at = name.rfind('@');
    std::int64_t due = 0;
    struct stat status {};
    if (at == std::string::npos || stat(path.c_str(), &status) != 0 ||
        std::from_chars(name.data() + at + 1, name.data() + name.size(), due).ec != std::errc())
        return std::nullopt;
    return TLaunchRecord{.task = name.substr(0, at),
                         .due = TTime(std::chrono::seconds(due)),
                         .launched = TTime(std::chrono::seconds(status.st_mtime))};
}

// The launches of this process. The worker adds, the table guard reads and removes. Guarded by
// gMutex.
static std::mutex gMutex;
static std::vector<TLaunchRecord> gLaunches;

void RememberLaunch(const TLaunchRecord& record) {
    const std::lock_guard<std::mutex> lock(gMutex);
    gLaunches.push_back(record);
}

std::vector<TLaunchRecord> ReadLaunchRecords() {
    std::unique_lock<std::mutex> lock(gMutex);
    std::vector<TLaunchRecord> records = gLaunches;
    lock.unlock();
    std::error_code error;
    for (fs::directory_iterator entry(cLaunchRecordDirectory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        if (const auto record = ReadLaunchRecord(entry->path()))
            records.push_back(*record);
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw vxsched::SystemError(fmt::format("cannot read {}", cLaunchRecordDirectory),
                                   error.value());
    return records;
}

void RemoveLaunchRecord(const TLaunchRecord& record) {
    const std::lock_guard<std::mutex> lock(gMutex);
    std::erase_if(gLaunches, [&](const TLaunchRecord& one) {
        return one.task == record.task && one.due == record.due;
    });
    unlink(PathOf(record.task, record.due).c_str());
}

std::size_t ApplyLaunchRecords(const std::vector<TLaunchRecord>& records, TTime now,
                               std::vector<TTaskEntry>& tasks) {
    std::size_t changed = 0;
    for (const TLaunchRecord& record : records) {
        const auto task = std::find_if(tasks.begin(), tasks.end(), [&](const TTaskEntry& each) {
            return record.IsOf(each.name, each.next);
        });
        const auto step =
            task == tasks.end() ? std::chrono::seconds(0) : vxsched::StepOf(task->period);
        if (task == tasks.end() || (task->period != 0 && step.count() == 0))
            continue;
        ++changed;
        if (task->period == 0) {
            tasks.erase(task);
            continue;
        }
        task->last = std::max(task->last, record.launched);
        task->next = vxsched::NextOnGrid(task->next, step,
                                         std::max(now, task->next + std::chrono::seconds(1)));
    }
    return changed;
}

std::vector<TLaunchRecord> FindSettled(const std::vector<TLaunchRecord>& records,
                                       const std::vector<TTaskEntry>& tasks) {
    std::vector<TLaunchRecord> settled;
    std::copy_if(records.begin(), records.end(), std::back_inserter(settled),
                 [&](const TLaunchRecord& record) {
                     return std::none_of(tasks.begin(), tasks.end(), [&](const TTaskEntry& task) {
                         return record.IsOf(task.name, task.next);
                     });
                 });
    return settled;
}
