#include "client/LibraryDirectory.h"

#include "base/FindLibraryDirectory.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

// The command has the client library linked into itself.
std::string LibraryDirectory() {
    const std::filesystem::path directory =
        FindLibraryDirectory(cChangeProgramFile, VXSCHED_LIBRARY_DIRECTORY);
    if (directory.empty())
        throw CError(EError::cFailed,
                     "cannot read /proc/self/exe; the programs of this installation are found from "
                     "it: mount /proc");
    return directory.string();
}

}  // namespace vxsched
