#include "client/LibraryDirectory.h"

#include <filesystem>

#include "store/Layout.h"

namespace vxsched {

// The command has the client library linked into itself, so it searches the directories of
// libraries next to its own directory "bin". These are the same in the build tree and in an
// installation.
std::string LibraryDirectory() {
    std::error_code ignored;
    const std::filesystem::path root =
        std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
    for (const char* const directory : {"lib", VXSCHED_LIBRARY_DIRECTORY}) {
        if (std::filesystem::exists(root / directory / cChangeProgramFile, ignored))
            return root / directory;
    }
    return root / VXSCHED_LIBRARY_DIRECTORY;
}

}  // namespace vxsched
