#include "host/recovery/LaunchRecords.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>

#include <vxsched/Error.h>
#include "base/Sync.h"
#include "host/CHostLog.h"
#include "store/CSchedule.h"
#include "store/Grid.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TaskFileName.h"

namespace fs = std::filesystem;

using vxsched::cLaunchRecordDirectory;
using vxsched::cSettledLaunchDirectory;
using vxsched::TTaskEntry;
using vxsched::TTime;

static constexpr std::chrono::minutes cSettledFor(1);

static std::string_view AsLaunched(std::string_view string) {
    return string.substr(0, string.find('\0'));
}

bool TLaunchedProgram::IsOf(const TTaskEntry& task) const {
    return AsLaunched(task.program) == program && AsLaunched(task.parameter) == parameter;
}

bool TLaunchRecord::IsOf(const std::string& name, TTime time) const {
    return due == time && task == vxsched::FileNameOf(name);
}

bool TLaunchRecord::IsLaunchOf(const TTaskEntry& entry) const {
    if (!IsOf(entry.name, entry.next) || (owed && !owed->IsOf(entry)))
        return false;
    return !isSettled ||
           (entry.period != 0 && (entry.last < launched || entry.last == formerStart));
}

static bool IsThere(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool MakeLaunchRecordDirectory() {
    if (IsThere(cLaunchRecordDirectory))
        return true;
    const int error = vxsched::MakePrivateDirectory(cLaunchRecordDirectory, ".");
    if (error == 0) {
        SyncDirectory(vxsched::cFilesDirectory);
        return true;
    }
    LogWarning(
        fmt::format("cannot create {}: {}. If this host is killed during a tick, the next one may "
                    "launch programs a second time.",
                    cLaunchRecordDirectory, std::strerror(error)));
    return false;
}

static std::int64_t SecondsOf(TTime time) {
    return time.time_since_epoch().count();
}

// Also of a record whose former start is not known.
static std::string BeginningOfName(const std::string& task, TTime due) {
    return fmt::format("{}@{}", task, SecondsOf(due));
}

static std::string NameOf(const TLaunchRecord& record) {
    const std::string beginning = BeginningOfName(record.task, record.due);
    return record.formerStart ? fmt::format("{}@{}", beginning, SecondsOf(*record.formerStart))
                              : beginning;
}

static std::string PathOf(const char* directory, const TLaunchRecord& record) {
    return fmt::format("{}/{}", directory, NameOf(record));
}

std::string LaunchRecordPath(const TLaunchRecord& record) {
    return PathOf(cLaunchRecordDirectory, record);
}

static std::optional<TTime> ReadSeconds(std::string_view number) {
    std::int64_t seconds = 0;
    const char* const end = number.data() + number.size();
    const auto result = std::from_chars(number.data(), end, seconds);
    return result.ec == std::errc() && result.ptr == end
               ? std::optional(TTime(std::chrono::seconds(seconds)))
               : std::nullopt;
}

static std::optional<TLaunchRecord> ReadLaunchRecord(const fs::path& path) {
    const std::string name = path.filename().string();
    const std::size_t task = name.find('@');
    struct stat status {};
    if (task == std::string::npos || stat(path.c_str(), &status) != 0)
        return std::nullopt;
    const std::string_view times = std::string_view(name).substr(task + 1);
    const std::size_t due = std::min(times.find('@'), times.size());
    const std::optional<TTime> dueTime = ReadSeconds(times.substr(0, due));
    if (!dueTime)
        return std::nullopt;
    return TLaunchRecord{
        .task = name.substr(0, task),
        .due = *dueTime,
        .launched = TTime(std::chrono::seconds(status.st_mtime)),
        .formerStart = due < times.size() ? ReadSeconds(times.substr(due + 1)) : std::nullopt};
}

// Adds the records of a directory.
static std::error_code AddRecordsOf(const char* directory, std::vector<TLaunchRecord>& records) {
    std::error_code error;
    for (fs::directory_iterator entry(directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        if (const auto record = ReadLaunchRecord(entry->path()))
            records.push_back(*record);
    }
    return error;
}

namespace {

using TClock = std::chrono::steady_clock;

struct TRemembered {
    TLaunchRecord record;
    bool hasFile;
    TClock::time_point settled;
};

// The launches of this process and the settled ones of former hosts, by the names of their files.
// The worker adds and finds, the table guard reads and settles. Guarded by gMutex.
std::mutex gMutex;
std::map<std::string, TRemembered> gLaunches;

}  // namespace

// Whether a client has removed the record, to make its task due again (store/ForgetLaunches.h).
static bool IsForgotten(const TRemembered& launch) {
    return launch.hasFile && !IsThere(PathOf(cLaunchRecordDirectory, launch.record)) &&
           !IsThere(PathOf(cSettledLaunchDirectory, launch.record)) &&
           IsThere(cLaunchRecordDirectory);
}

// Whether a due time that is brought back is that of this launch, and not of one that is still owed,
// nor one that a client has set again.
static bool IsRecent(const TRemembered& launch) {
    const bool isOld = launch.record.isSettled && TClock::now() - launch.settled >= cSettledFor;
    return launch.record.launched != TTime() && !isOld && !IsForgotten(launch);
}

void RememberLaunch(const TLaunchRecord& record) {
    const bool hasFile = IsThere(LaunchRecordPath(record));
    const std::lock_guard<std::mutex> lock(gMutex);
    gLaunches.insert_or_assign(NameOf(record), TRemembered{record, hasFile, {}});
}

std::vector<TLaunchRecord> ReadLaunchRecords() {
    std::vector<TLaunchRecord> records;
    std::unique_lock<std::mutex> lock(gMutex);
    for (const auto& [name, launch] : gLaunches) {
        if (!launch.record.isSettled && !IsForgotten(launch))
            records.push_back(launch.record);
    }
    lock.unlock();
    const std::error_code error = AddRecordsOf(cLaunchRecordDirectory, records);
    if (error && error != std::errc::no_such_file_or_directory)
        throw vxsched::SystemError(fmt::format("cannot read {}", cLaunchRecordDirectory),
                                   error.value());
    return records;
}

std::vector<TLaunchRecord> RecentLaunches() {
    std::vector<TLaunchRecord> recent;
    const std::lock_guard<std::mutex> lock(gMutex);
    for (const auto& [name, launch] : gLaunches) {
        if (launch.record.isSettled && IsRecent(launch))
            recent.push_back(launch.record);
    }
    return recent;
}

std::vector<TLaunchRecord> TakeOverSettledLaunches() {
    std::vector<TLaunchRecord> records;
    AddRecordsOf(cSettledLaunchDirectory, records);
    const std::lock_guard<std::mutex> lock(gMutex);
    for (TLaunchRecord& record : records) {
        record.isSettled = true;
        gLaunches.insert_or_assign(NameOf(record), TRemembered{record, true, TClock::now()});
    }
    return records;
}

// Whether the settled record has a file now.
static bool MoveToSettled(const TLaunchRecord& record) {
    const std::string from = PathOf(cLaunchRecordDirectory, record);
    const std::string to = PathOf(cSettledLaunchDirectory, record);
    if (rename(from.c_str(), to.c_str()) == -1 && errno == ENOENT &&
        vxsched::MakePrivateDirectory(cSettledLaunchDirectory, ".") == 0)
        rename(from.c_str(), to.c_str());
    return IsThere(to);
}

void SettleLaunches(const std::vector<TLaunchRecord>& records) {
    const std::lock_guard<std::mutex> lock(gMutex);
    const TClock::time_point now = TClock::now();
    for (const TLaunchRecord& record : records) {
        TRemembered& launch =
            gLaunches.try_emplace(NameOf(record), TRemembered{record, false, now}).first->second;
        launch.record.isSettled = true;
        launch.settled = now;
        launch.hasFile = MoveToSettled(record);
        if (!launch.hasFile)
            unlink(PathOf(cLaunchRecordDirectory, record).c_str());
    }
    std::erase_if(gLaunches, [&](const auto& each) {
        const TRemembered& launch = each.second;
        const bool isOld = launch.record.isSettled && now - launch.settled >= cSettledFor;
        if (isOld)
            unlink(PathOf(cSettledLaunchDirectory, launch.record).c_str());
        return isOld;
    });
}

std::optional<TLaunchRecord> FindRecentLaunch(const TTaskEntry& task) {
    const std::string beginning = BeginningOfName(vxsched::FileNameOf(task.name), task.next);
    const std::lock_guard<std::mutex> lock(gMutex);
    for (auto next = gLaunches.lower_bound(beginning);
         next != gLaunches.end() && next->first.starts_with(beginning); ++next) {
        TLaunchRecord launch = next->second.record;
        launch.isSettled = true;
        if (launch.IsLaunchOf(task) && IsRecent(next->second))
            return launch;
    }
    return {};
}

std::size_t ApplyLaunchRecords(const std::vector<TLaunchRecord>& records, TTime now,
                               std::vector<TTaskEntry>& tasks) {
    std::size_t changed = 0;
    for (const TLaunchRecord& record : records) {
        const auto task = std::find_if(tasks.begin(), tasks.end(), [&](const TTaskEntry& each) {
            return record.IsLaunchOf(each);
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
        const vxsched::CSchedule schedule(*task);
        task->next = schedule.FirstFrom(std::max(now, task->next + std::chrono::seconds(1)));
        if (schedule.IsOver(task->next))
            tasks.erase(task);
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
