#include "host/recovery/OwedLaunches.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <vxsched/Error.h>
#include "base/Sync.h"
#include "host/CHostLog.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TableFile.h"
#include "store/TaskFileName.h"

namespace fs = std::filesystem;

using vxsched::TTaskEntry;

std::string OwedLaunchPath(const TOwedLaunch& launch) {
    return fmt::format("{}/{}@{}", vxsched::cOwedLaunchDirectory, vxsched::FileNameOf(launch.task),
                       launch.due.time_since_epoch().count());
}

TLaunchIntent IntentOf(const TOwedLaunch& launch) {
    return {.task = vxsched::FileNameOf(launch.task), .due = launch.due};
}

bool KeepOwedLaunch(const TOwedLaunch& launch) {
    RememberLaunch({.task = vxsched::FileNameOf(launch.task),
                    .due = launch.due,
                    .launched = {},
                    .formerStart = launch.formerStart,
                    .owed = {{launch.program, launch.parameter}}});
    try {
        if (const int error = vxsched::MakePrivateDirectory(vxsched::cOwedLaunchDirectory, ".");
            error != 0)
            throw vxsched::SystemError(
                fmt::format("cannot create {}", vxsched::cOwedLaunchDirectory), error);
        // The table that shows the launch as made is flushed to the disk after this.
        SyncDirectory(vxsched::cFilesDirectory);
        vxsched::WriteNewFile(OwedLaunchPath(launch),
                              vxsched::EncodeTable({{.name = launch.task,
                                                     .next = launch.due,
                                                     .last = launch.formerStart,
                                                     .period = launch.period,
                                                     .program = launch.program,
                                                     .parameter = launch.parameter,
                                                     .paused = false}}),
                              ".");
        return true;
    } catch (const vxsched::CError& error) {
        LogWarning(
            fmt::format("{}. If this host ends before it can launch the program of task "
                        "\"{}\", due {}, that launch is lost.",
                        error.what(), launch.task, launch.due.time_since_epoch().count()));
        return false;
    }
}

// Were a removal not on the disk before launch record and intent are gone, a power failure would
// bring back the file alone: the launch would be owed again.
static void Remove(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        SyncDirectory(vxsched::cOwedLaunchDirectory);
}

void ForgetOwedLaunch(const TOwedLaunch& launch) {
    Remove(OwedLaunchPath(launch));
}

std::string WhyNotWanted(const TOwedLaunch& launch, const std::vector<TTaskEntry>& tasks) {
    if (launch.period == 0)
        return "";
    std::string why = "the task was removed";
    for (const TTaskEntry& task : tasks) {
        if (task.name != launch.task)
            continue;
        if (!TLaunchedProgram{launch.program, launch.parameter}.IsOf(task))
            why = "the program of the task was changed";
        else if (task.paused)
            why = "the task was paused";
        else
            return "";
    }
    return why;
}

// Whether a file was being written when a host was killed. The name of a task has no '@'.
static bool IsUnfinished(const fs::path& file) {
    const std::string name = file.filename().string();
    return name.find(vxsched::cReplacementSuffix, name.rfind('@')) != std::string::npos;
}

// The launch that a file holds; nothing if the launch was made or the file is unfinished: such files
// are removed.
static std::optional<TOwedLaunch> TakeOver(const fs::path& file) {
    try {
        if (IsUnfinished(file) || fs::is_empty(file))
            Remove(file);
        else
            return vxsched::ReadOwedLaunch(file);
    } catch (const std::exception& error) {
        LogError(fmt::format("the launch of {} is lost: {}", file.string(), error.what()));
    }
    return {};
}

std::vector<TOwedLaunch> ReadOwedLaunches() {
    std::vector<TOwedLaunch> launches;
    std::error_code error;
    for (fs::directory_iterator entry(vxsched::cOwedLaunchDirectory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        if (std::optional<TOwedLaunch> launch = TakeOver(entry->path()))
            launches.push_back(*std::move(launch));
    }
    if (error && error != std::errc::no_such_file_or_directory)
        LogError(fmt::format("cannot read {}: {}", vxsched::cOwedLaunchDirectory, error.message()));
    std::sort(launches.begin(), launches.end(),
              [](const TOwedLaunch& one, const TOwedLaunch& other) { return one.due < other.due; });
    return launches;
}

std::vector<TOwedLaunch> SettleOwedLaunches(const std::vector<TLaunchRecord>& records,
                                            const std::vector<TLaunchIntent>& intents,
                                            const std::vector<TTaskEntry>& tasks) {
    std::vector<TOwedLaunch> unknown;
    for (TOwedLaunch& launch : ReadOwedLaunches()) {
        const bool isMade = std::any_of(
            records.begin(), records.end(),
            [&](const TLaunchRecord& record) { return record.IsOf(launch.task, launch.due); });
        const bool isDue = std::any_of(tasks.begin(), tasks.end(), [&](const TTaskEntry& task) {
            return task.name == launch.task && task.next == launch.due;
        });
        if (isMade || isDue)
            ForgetOwedLaunch(launch);
        else if (std::find(intents.begin(), intents.end(), IntentOf(launch)) != intents.end())
            unknown.push_back(std::move(launch));
    }
    return unknown;
}
