#include "runs/OutputFiles.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>

#include "runs/CRunningFile.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/TaskFileName.h"

namespace fs = std::filesystem;

using vxsched::TOutput;

static constexpr std::size_t cMostOutputs = 10;
static constexpr std::chrono::days cKeptOfOthers(30);
static constexpr char cSuffix[] = ".log";
// No task's name is encoded as this.
static constexpr char cUnknown[] = "%unknown";

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
    return std::string(vxsched::cOutputDirectory) + '/' +
           (task ? vxsched::FileNameOf(*task) : cUnknown);
}

// False if there is none in the end, as where a link leads elsewhere.
static bool MakeDirectory(const std::string& path) {
    std::error_code ignored;
    return vxsched::MakePrivateDirectory(path, ".") == 0 &&
           fs::is_directory(fs::symlink_status(path, ignored));
}

// Removes all but the latest, and those whose runs go on.
static void RemoveOldest(const std::vector<TOutput>& outputs) {
    std::error_code ignored;
    for (std::size_t number = cMostOutputs - 1; number < outputs.size(); ++number) {
        if (!vxsched::IsRunning(".", outputs[number].id))
            fs::remove(outputs[number].path, ignored);
    }
}

std::string OutputPathOf(const std::optional<std::string>& task, const std::string& id) {
    return DirectoryOf(task) + '/' + id + cSuffix;
}

std::string PrepareOutputFile(const std::optional<std::string>& task, const std::string& id) {
    const std::string directory = DirectoryOf(task);
    if (MakeDirectory(vxsched::cOutputDirectory) && MakeDirectory(directory))
        RemoveOldest(OutputsIn(".", directory));
    return OutputPathOf(task, id);
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
                return IsOld(one.path) && !vxsched::IsRunning(".", one.id);
            });
        if (!areOld)
            continue;
        for (const TOutput& output : outputs)
            fs::remove(output.path, ignored);
        fs::remove(entry.path(), ignored);
    }
}

namespace vxsched {

std::vector<TOutput> FindOutputs(const std::string& directory, const std::string& task) {
    return OutputsIn(directory, DirectoryOf(task));
}

}  // namespace vxsched
