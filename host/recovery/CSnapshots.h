#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

// Snapshots of valid tables, in files/snapshots/: at most a given number of files, each written in
// one step and synced (temporary file, fsync, rename, fsync of the directory). Their names increase
// in the order of creation, see store/TimestampedFiles.h. For one thread.
class CSnapshots {
public:
    // Of the working directory. Keeps at most `most` files; 0 disables snapshots.
    explicit CSnapshots(std::size_t most);

    // Writes a snapshot of `bytes`, unless the latest snapshot, also one of an earlier host, holds
    // the same. Shares `bytes` with the caller. Throws std::system_error.
    void Keep(const std::shared_ptr<const std::string>& bytes);

    static std::filesystem::path Directory();

private:
    const std::size_t limit;
    std::shared_ptr<const std::string> last;
};
