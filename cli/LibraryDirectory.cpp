#include "client/LibraryDirectory.h"

#include "base/FindLibraryDirectory.h"
#include "store/Layout.h"

namespace vxsched {

// The command has the client library linked into itself.
std::string LibraryDirectory() {
    return FindLibraryDirectory(cChangeProgramFile, VXSCHED_LIBRARY_DIRECTORY).string();
}

}  // namespace vxsched
