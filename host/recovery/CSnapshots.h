#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

// The last good tables, in files/snapshots/: a bounded ring of files, each made in one step and
// brought to the disk (temporary file, fsync, rename, fsync of the folder). Their names are in the
// order of their making, see client/KeptFiles.h. For one thread.
class CSnapshots {
public:
    // Of the working directory; keeps at most `most`, 0 none.
    explicit CSnapshots(std::size_t most);

    // Keeps `bytes`, which are shared with the caller, unless they are the last that were kept, by
    // whichever host. Throws std::system_error.
    void Keep(const std::shared_ptr<const std::string>& bytes);

    static std::filesystem::path Directory();

private:
    const std::size_t limit;
    std::shared_ptr<const std::string> last;
};
