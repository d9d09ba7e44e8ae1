#include "client/LibraryDirectory.h"

#include <filesystem>

#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

// The command has the client library linked into itself, so it searches the directories of
// libraries next to its own directory "bin". These are the same in the build tree and in an
// installation.
std::string LibraryDirectory() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    // A path relative to the present directory would lead to anybody's program.
    if (!self.is_absolute())
        throw MakeError(EError::cFailed,
                        "cannot read /proc/self/exe: {}; the programs of this installation are "
                        "found from it: mount /proc",
                        error.message());
    const std::filesystem::path root = self.parent_path().parent_path();
    std::error_code ignored;
    for (const char* const directory : {"lib", VXSCHED_LIBRARY_DIRECTORY}) {
        if (std::filesystem::exists(root / directory / cChangeProgramFile, ignored))
            return root / directory;
    }
    return root / VXSCHED_LIBRARY_DIRECTORY;
}

}  // namespace vxsched
