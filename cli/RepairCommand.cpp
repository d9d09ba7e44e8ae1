#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "cli/Commands.h"
#include "cli/ShownText.h"
#include "client/CClientError.h"
#include "client/CStoreLock.h"
#include "client/Salvage.h"
#include "client/TableFile.h"

namespace vxsched {

namespace {

namespace fs = std::filesystem;

std::string TableBytes(const TCommon& common) {
    const CStoreLock lock(common.store.patience);
    return ReadBytes(TableFile(common.store.directory));
}

TTime WrittenAt(const fs::path& file) {
    const auto age = fs::file_time_type::clock::now() - fs::last_write_time(file);
    return Now() - std::chrono::duration_cast<std::chrono::seconds>(age);
}

// The youngest sound table of those that were put aside: the copy from before the last change, and
// the host's snapshots.
std::optional<TSource> FindSource(const TCommon& common) {
    std::error_code ignored;
    std::vector<fs::path> files = {TableBefore(common.store.directory)};
    for (const auto& entry :
         fs::directory_iterator(common.store.directory / "files" / "snapshots", ignored))
        files.push_back(entry.path());
    files.erase(
        std::remove_if(files.begin(), files.end(),
                       [&](const fs::path& file) { return !fs::is_regular_file(file, ignored); }),
        files.end());
    std::sort(files.begin(), files.end(), [](const fs::path& first, const fs::path& second) {
        return WrittenAt(first) > WrittenAt(second);
    });
    for (const fs::path& file : files) {
        try {
            TTable table = DecodeTable(ReadBytes(file), Now());
            return TSource{fmt::format("{} of {}", file.filename().string(),
                                       FormatTime(WrittenAt(file), common.zone)),
                           std::move(table.tasks)};
        } catch (const CClientError&) {
            continue;
        }
    }
    return {};
}

// The damaged file stays beside the new one, under a name of its own.
std::string PutAside(const TCommon& common, const std::string& bytes) {
    const fs::path base = TableFile(common.store.directory).string() + ".damaged-" +
                          std::to_string(Now().time_since_epoch().count());
    fs::path file = base;
    for (int number = 2; fs::exists(file); ++number)
        file = base.string() + '-' + std::to_string(number);
    WriteNewFile(file, bytes, common.store.directory);
    return file.string();
}

}  // namespace

int Repair(const TCommon& common, COutput& output) {
    const std::string bytes = TableBytes(common);
    const std::optional<TSource> source = FindSource(common);
    const TRepair repair = PlanRepair(bytes, source ? &*source : nullptr, Now());
    if (repair.notes.empty()) {
        output.Line("the table is sound, there is nothing to repair");
        return 0;
    }
    for (const std::string& note : repair.notes)
        output.Line(Show(note).text);
    const std::string count =
        fmt::format("{} task{}", repair.tasks.size(), repair.tasks.size() == 1 ? "" : "s");
    if (common.dryRun) {
        output.Line(fmt::format("would write a table of {}", count));
        return 0;
    }
    const std::string aside = PutAside(common, bytes);
    CStore(common.store).ReplaceAll(repair.tasks, [&](const std::string& current) {
        if (current != bytes)
            throw CClientError(EError::cBusy,
                               "the table was changed meanwhile; nothing was repaired; try again");
    });
    output.Line(fmt::format("wrote a table of {}; the former one is {}", count, aside));
    return 0;
}

}  // namespace vxsched
