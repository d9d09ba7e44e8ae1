#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Snapshots and quarantined tables: files named by a prefix, the time of their creation in seconds
// since the epoch, and a number if that time is taken, as in "scheduler.dat.1790000000-1". The
// names increase in the order of creation. After the clock was set back they continue with the time
// of the newest name and a higher number, until the clock has passed that time. The caller keeps
// other writers out.

struct TFileTimestamp {
    std::int64_t time = 0;
    std::uint64_t number = 0;  // 0 if the name has none

    bool operator<(const TFileTimestamp& other) const {
        return std::tie(time, number) < std::tie(other.time, other.number);
    }
};

struct TTimestampedFile {
    TFileTimestamp name;
    std::filesystem::path path;
};

// The files of a directory with the prefix `beginning` and a timestamp, oldest first. Empty if the
// directory cannot be read.
std::vector<TTimestampedFile> FindTimestamped(const std::filesystem::path& directory,
                                              std::string_view beginning);

// The timestamp for the next file: `now`, or the first that is newer than the last of `kept`, which
// is sorted.
TFileTimestamp NextTimestamp(const std::vector<TTimestampedFile>& kept, TTime now);

// Removes all but the newest `most` of the files that FindTimestamped() finds. Files that cannot be
// removed stay.
void RemoveOldest(const std::filesystem::path& directory, std::string_view beginning,
                  std::size_t most);

}  // namespace vxsched
