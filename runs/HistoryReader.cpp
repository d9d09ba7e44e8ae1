#include "runs/HistoryReader.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include <vxsched/Error.h>
#include "base/RegularFile.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

namespace fs = std::filesystem;

// A host with a larger --history-size writes larger files; no reader needs as much memory.
constexpr std::uint64_t cMostBytes = std::uint64_t{1} << 30;

// A parsed line needs many times its bytes. A host's line has a few hundred KiB at most, if a task's
// strings are as long as the system passes them to a program.
constexpr std::size_t cLongestLine = std::size_t{16} << 20;

std::string ReasonOf(int error) {
    if (error == cNotAFile)
        return "it is not a file; move it away";
    if (error == EFBIG)
        return "it has more than 1 GiB; move it away";
    return std::generic_category().message(error);
}

// The content of a file; empty if there is no file.
std::string ReadContent(const fs::path& file) {
    std::string content;
    if (ReadRegularFile(file.string(), cMostBytes, content))
        return content;
    if (errno == ENOENT)
        return "";
    throw MakeError(EError::cNoAccess, "cannot read {}: {}", file.string(), ReasonOf(errno));
}

// The inode number; 0 if there is no file.
ino_t IdentityOf(const fs::path& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

struct TFile {
    fs::path path;
    std::string content;
};

// Reads both files as of one moment: if a host renames the newer one meanwhile, they are read
// again.
std::vector<TFile> ReadFiles(const fs::path& newer) {
    const fs::path older = newer.string() + ".1";
    for (;;) {
        const ino_t before = IdentityOf(newer);
        std::vector<TFile> files = {{older, ReadContent(older)}, {newer, ReadContent(newer)}};
        if (IdentityOf(newer) == before)
            return files;
    }
}

void ReadLines(const TFile& file, const std::optional<std::string>& task, THistory& history) {
    std::size_t number = 0;
    // A last line without a line break is still being written.
    for (std::size_t begin = 0, end = 0;
         (end = file.content.find('\n', begin)) != std::string::npos; begin = end + 1) {
        ++number;
        if (end - begin > cLongestLine) {
            history.problems.push_back(
                fmt::format("line {} of {} is longer than {} MiB; it is skipped", number,
                            file.path.string(), cLongestLine >> 20U));
            continue;
        }
        std::optional<TRunRecord> run =
            ReadJsonLine(std::string_view(file.content).substr(begin, end - begin));
        if (!run)
            history.problems.push_back(
                fmt::format("line {} of {} is not a record of a run; it is skipped", number,
                            file.path.string()));
        else if (!task || run->task == task)
            history.runs.push_back(*std::move(run));
    }
}

// The last one. The id may occur in other lines, as in a parameter.
template <typename Wanted>
std::optional<TRunRecord> FindRecordIn(const std::string& content, const std::string& id,
                                       const Wanted& isWanted) {
    for (std::size_t at = content.rfind(id); at != std::string::npos;) {
        const std::size_t begin = content.rfind('\n', at) + 1;  // 0 in the first line
        const std::size_t end = content.find('\n', at);
        if (end != std::string::npos && end - begin <= cLongestLine) {
            std::optional<TRunRecord> run =
                ReadJsonLine(std::string_view(content).substr(begin, end - begin));
            if (run && isWanted(*run))
                return run;
        }
        at = begin == 0 ? std::string::npos : content.rfind(id, begin - 1);
    }
    return {};
}

template <typename Wanted>
std::optional<TRunRecord> FindRecordOf(const std::string& directory, const std::string& id,
                                       const Wanted& isWanted) {
    const std::vector<TFile> files = ReadFiles(fs::path(directory) / cHistoryFile);
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        if (std::optional<TRunRecord> run = FindRecordIn(file->content, id, isWanted))
            return run;
    }
    return {};
}

}  // namespace

std::optional<TRunRecord> FindRecord(const std::string& directory, const std::string& id) {
    return FindRecordOf(directory, id, [&](const TRunRecord& run) { return run.id == id; });
}

std::optional<TRunRecord> FindLastAttempt(const std::string& directory, const std::string& id) {
    return FindRecordOf(directory, id,
                        [&](const TRunRecord& run) { return run.id == id || run.retryOf == id; });
}

bool IsRecorded(const std::string& directory, const std::string& id) {
    try {
        return FindRecord(directory, id).has_value();
    } catch (const CError&) {
        return false;
    }
}

THistory ReadHistory(const std::string& directory, const std::optional<std::string>& task) {
    std::optional<std::string> recorded;
    if (task)
        recorded = AsRecorded(*task);
    THistory history;
    // Before the files: a run that is recorded meanwhile is in them.
    const std::vector<TRunRecord> dead = FindDeadRuns(directory);
    for (const TFile& file : ReadFiles(fs::path(directory) / cHistoryFile))
        ReadLines(file, recorded, history);
    for (const TRunRecord& run : dead) {
        const auto isIt = [&](const TRunRecord& one) { return one.id == run.id; };
        if ((!recorded || run.task == recorded) &&
            std::none_of(history.runs.begin(), history.runs.end(), isIt))
            history.runs.push_back(run);
    }
    return history;
}

}  // namespace vxsched
