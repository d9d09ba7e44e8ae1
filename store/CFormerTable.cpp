#include "store/CFormerTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "base/RegularFile.h"
#include "base/SameFile.h"
#include "store/CReadLease.h"
#include "store/TableFile.h"

namespace vxsched {

namespace fs = std::filesystem;

CFormerTable::CFormerTable(const fs::path& directory)
    : path(TableFile(directory)), file(OpenRegularFile(path.c_str(), O_RDONLY)) {
    if (!file.IsOpen())
        return;
    lease = std::make_unique<CReadLease>(file.Get());
    bytes = ReadBytes(file.Get(), path);
}

CFormerTable::~CFormerTable() = default;

std::string CFormerTable::BaseOfOthers(const std::string& known) const {
    return IsValidTable(bytes) ? bytes : known;
}

void CFormerTable::LetWritersGo() {
    lease.reset();
}

std::optional<std::string> CFormerTable::WrittenSince() {
    if (!file.IsOpen() || (lease && lease->IsUnbroken()))
        return {};
    lease.reset();
    struct stat status {};
    // A table that could not be replaced was overwritten in place.
    if (fstat(file.Get(), &status) == -1 || IsSameFile(path, status))
        return {};
    const CReadLease afterTheirs(file.Get());
    if (lseek(file.Get(), 0, SEEK_SET) == -1)
        throw SystemError("cannot read the former table", errno);
    std::string now = ReadBytes(file.Get(), "the former table");
    // A save that was cut short is none.
    return now != bytes && IsValidTable(now) ? std::optional(std::move(now)) : std::nullopt;
}

void ReplaceMerged(const fs::path& directory, std::string base, std::string ours,
                   TTryToWrite tryToWrite, const std::vector<TRename>& renames) {
    base = Renamed(std::move(base), renames);
    // Once replaced, the table has the new names.
    bool isReplaced = false;
    const auto renamed = [&](std::string bytes) {
        return isReplaced ? std::move(bytes) : Renamed(std::move(bytes), renames);
    };
    for (;; isReplaced = true) {
        CFormerTable former(directory);
        const std::string merged = MergeChanges(base, std::move(ours), renamed(former.Bytes()));
        if (!tryToWrite(directory, merged)) {
            former.LetWritersGo();
            OverwriteTable(directory, merged);
        }
        std::optional<std::string> written = former.WrittenSince();
        if (!written)
            return;
        if (IsValidTable(former.Bytes()))
            base = renamed(former.Bytes());
        ours = renamed(*std::move(written));
    }
}

}  // namespace vxsched
