#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/CDescriptor.h"
#include "store/MergeChanges.h"

namespace vxsched {

class CReadLease;

// The table's file right before it is replaced, and what others write into it all the same: a
// process whose load of the add-in has set the store mutex free may save at the same moment, and
// its save goes to the file that has just lost its name. While this object lives, whoever opens the
// file for writing waits, where the kernel grants that (CReadLease). For one thread.
class CFormerTable {
public:
    // Reads the table's file of the directory; waits while it is being saved. Throws CError as
    // ReadBytes() does.
    explicit CFormerTable(const std::filesystem::path& directory);
    ~CFormerTable();
    CFormerTable(const CFormerTable&) = delete;
    CFormerTable& operator=(const CFormerTable&) = delete;

    // Empty, which no table is, if there is no file.
    const std::string& Bytes() const { return bytes; }

    // The table that somebody has changed who has written the file since: the one that was read or,
    // if that was in the middle of a save, `known`.
    std::string BaseOfOthers(const std::string& known) const;

    // Ends the wait of those who wait to write the file: of this process, too, which is about to
    // overwrite it in place.
    void LetWritersGo();

    // For a caller that has replaced the file: lets those go on who wait to write the former one,
    // waits until they have, and returns the table that they have written; nothing if nobody has.
    // Once.
    std::optional<std::string> WrittenSince();

private:
    const std::filesystem::path path;
    CDescriptor file;
    std::unique_ptr<CReadLease> lease;
    std::string bytes;
};

// TryToReplaceTable(), TryToSaveTasks() or TryToSaveTable().
using TTryToWrite = bool (*)(const std::filesystem::path& directory, std::string_view bytes);

// Replaces the table by one with the changes that lead from `base` to `ours`, and with those that
// others have saved meanwhile. `renames` are among these changes, in their order: what others have
// saved of a task under its former name is kept under the new one. The caller holds the store mutex.
// Throws CError as ReplaceTable() does.
void ReplaceMerged(const std::filesystem::path& directory, std::string base, std::string ours,
                   TTryToWrite tryToWrite, const std::vector<TRename>& renames = {});

}  // namespace vxsched
