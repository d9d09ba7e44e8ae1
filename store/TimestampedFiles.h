#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Files that are kept for later, snapshots and damaged tables: their names are a beginning, the time
// of their making in seconds, and a number if that time is taken, as in "scheduler.dat.1790000000-1".
// Names increase in the order of making. Should the clock be set back, they go on from the youngest
// name in the folder, whose time they then have until the clock is there again.

struct TFileTimestamp {
    std::int64_t time = 0;
    std::uint64_t number = 0;  // 0 where the name has none

    bool operator<(const TFileTimestamp& other) const {
        return std::tie(time, number) < std::tie(other.time, other.number);
    }
};

struct TTimestampedFile {
    TFileTimestamp name;
    std::filesystem::path path;
};

// Those of a folder whose names begin with `beginning`, the oldest first. None of a folder that cannot
// be read.
std::vector<TTimestampedFile> FindTimestamped(const std::filesystem::path& directory,
                                              std::string_view beginning);

// What the next one is to be called, which is younger than each of `kept`.
TFileTimestamp NextTimestamp(const std::vector<TTimestampedFile>& kept, TTime now);

// Removes the oldest of those that FindTimestamped() finds, all but the youngest `most`.
void RemoveOldest(const std::filesystem::path& directory, std::string_view beginning,
                  std::size_t most);

}  // namespace vxsched
