#include "runs/HistoryReader.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <vxsched/Error.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace vxsched {

namespace {

namespace fs = std::filesystem;

// Empty when the file is not there.
std::string ReadWhole(const fs::path& file) {
    // Whoever opens a pipe waits for its writer, for ever.
    std::error_code ignored;
    if (fs::is_other(file, ignored))
        throw CError(
            EError::cNoAccess,
            fmt::format("cannot read {}: it is no file; move it out of the way", file.string()));
    errno = 0;
    const std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    // Nothing was read of an empty file either, without an error.
    if ((!stream.is_open() || content.fail()) && errno != 0 && errno != ENOENT)
        throw CError(EError::cNoAccess, fmt::format("cannot read {}: {}", file.string(),
                                                    std::generic_category().message(errno)));
    return content.str();
}

// 0 when it is not there.
ino_t IdentityOf(const fs::path& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

struct THalf {
    fs::path file;
    std::string content;
};

// Both halves as they were at one moment: a host may move the younger one to the older one's place
// while they are read.
std::vector<THalf> ReadHalves(const fs::path& younger) {
    const fs::path older = younger.string() + ".1";
    for (;;) {
        const ino_t before = IdentityOf(younger);
        std::vector<THalf> halves = {{older, ReadWhole(older)}, {younger, ReadWhole(younger)}};
        if (IdentityOf(younger) == before)
            return halves;
    }
}

void ReadLines(const THalf& half, const std::optional<std::string>& task, THistory& history) {
    std::size_t number = 0;
    // What has no end of a line yet is being written.
    for (std::size_t start = 0, end = 0;
         (end = half.content.find('\n', start)) != std::string::npos; start = end + 1) {
        ++number;
        std::optional<TRunRecord> run =
            ReadJsonLine(std::string_view(half.content).substr(start, end - start));
        if (!run)
            history.problems.push_back(fmt::format(
                "line {} of {} is no record of a run; it is left out", number, half.file.string()));
        else if (!task || run->task == task)
            history.runs.push_back(*std::move(run));
    }
}

}  // namespace

THistory ReadHistory(const std::string& directory, const std::optional<std::string>& task) {
    std::optional<std::string> recorded;
    if (task)
        recorded = RecordedText(*task);
    THistory history;
    for (const THalf& half : ReadHalves(fs::path(directory) / "files" / "history.jsonl"))
        ReadLines(half, recorded, history);
    return history;
}

}  // namespace vxsched
