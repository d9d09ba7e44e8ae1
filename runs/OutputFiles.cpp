#include "runs/OutputFiles.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/CDeadline.h"
#include "base/CDescriptor.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TaskFileName.h"

namespace fs = std::filesystem;

using vxsched::TOutput;

static constexpr std::size_t cMostOutputs = 10;
static constexpr std::chrono::days cKeptOfOthers(30);
// Another run's begin needs less than a millisecond; one that is stopped holds up no other.
static constexpr std::chrono::seconds cDirectoryTimeout(1);
static constexpr char cSuffix[] = ".log";

// The latest first.
static std::vector<TOutput> OutputsIn(const fs::path& store, const std::string& directory) {
    std::vector<TOutput> outputs;
    std::error_code error;
    for (fs::directory_iterator entry(store / directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::path& path = entry->path();
        if (path.extension() == cSuffix)
            outputs.push_back({path.stem(), directory + '/' + path.filename().string()});
    }
    std::sort(outputs.begin(), outputs.end(),
              [](const TOutput& one, const TOutput& other) { return one.id > other.id; });
    return outputs;
}

static std::string DirectoryOf(const std::optional<std::string>& task) {
    return std::string(vxsched::cOutputDirectory) + '/' + vxsched::FileNameOrUnknown(task);
}

// And no link, which may lead elsewhere.
static bool IsOwnDirectory(const std::string& path) {
    std::error_code ignored;
    return fs::is_directory(fs::symlink_status(path, ignored));
}

// False if there is none in the end.
static bool MakeDirectory(const std::string& path) {
    return vxsched::MakePrivateDirectory(path, ".") == 0 && IsOwnDirectory(path);
}

// Removes the oldest of `outputs` so that `most` are left, as far as they are not being written.
static void RemoveOldest(const std::vector<TOutput>& outputs, std::size_t most) {
    std::size_t count = outputs.size();
    for (auto output = outputs.rbegin(); output != outputs.rend() && count > most; ++output) {
        if (RemoveUnwrittenOutput(output->path))
            --count;
    }
}

// Keeps others from making an output there, as far as that can be had. Until it is closed.
static CDescriptor LockDirectory(const std::string& path) {
    const CDeadline deadline(cDirectoryTimeout);
    CDescriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    while (flock(directory.Get(), LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK &&
           deadline.Pause(std::chrono::milliseconds(1))) {
    }
    return directory;
}

std::string OutputPathOf(const std::optional<std::string>& task, const std::string& id) {
    return DirectoryOf(task) + '/' + id + cSuffix;
}

COutputFile MakeOutputFile(const std::optional<std::string>& task, const std::string& id,
                           std::uint64_t size, std::function<void(const std::string&)> logWarning) {
    const std::string directory = DirectoryOf(task);
    CDescriptor lock;
    if (size > 0 && MakeDirectory(vxsched::cOutputDirectory) && MakeDirectory(directory)) {
        lock = LockDirectory(directory);
        RemoveOldest(OutputsIn(".", directory), cMostOutputs - 1);
    }
    return COutputFile(OutputPathOf(task, id), size, std::move(logWarning));
}

void RemoveOldOutputs(const std::optional<std::string>& task) {
    const std::string directory = DirectoryOf(task);
    if (!IsOwnDirectory(vxsched::cOutputDirectory) || !IsOwnDirectory(directory))
        return;
    // One who prunes has the files that it removes locked: another would take them for written ones.
    const CDescriptor lock = LockDirectory(directory);
    std::vector<TOutput> outputs = OutputsIn(".", directory);
    if (outputs.size() <= cMostOutputs)
        return;
    outputs.erase(outputs.begin());
    RemoveOldest(outputs, cMostOutputs - 1);
}

std::string FindLatestOutput(const std::optional<std::string>& task) {
    const std::vector<TOutput> outputs = OutputsIn(".", DirectoryOf(task));
    return outputs.empty() ? "" : outputs.front().id;
}

static bool IsOld(const fs::path& path) {
    std::error_code error;
    const fs::file_time_type time = fs::last_write_time(path, error);
    return !error && time < fs::file_time_type::clock::now() - cKeptOfOthers;
}

void RemoveOutputsOfOthers(const std::set<std::string>& tasks) {
    std::set<std::string> kept;
    for (const std::string& task : tasks)
        kept.insert(vxsched::FileNameOf(task));
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(vxsched::cOutputDirectory, ignored)) {
        const std::string name = entry.path().filename();
        if (kept.contains(name) || !fs::is_directory(entry.symlink_status(ignored)))
            continue;
        const std::vector<TOutput> outputs =
            OutputsIn(".", std::string(vxsched::cOutputDirectory) + '/' + name);
        const bool areOld =
            IsOld(entry.path()) && std::all_of(outputs.begin(), outputs.end(), [](const auto& one) {
                return IsOld(one.path) && !IsOutputWritten(one.path);
            });
        if (!areOld)
            continue;
        for (const TOutput& output : outputs)
            RemoveUnwrittenOutput(output.path);
        fs::remove(entry.path(), ignored);
    }
}

namespace vxsched {

std::vector<TOutput> FindOutputs(const std::string& directory, const std::string& task) {
    return OutputsIn(directory, DirectoryOf(task));
}

}  // namespace vxsched
