#include "client/LibraryDirectory.h"

#include <dlfcn.h>

#include <filesystem>

#include <vxsched/Error.h>
#include "base/DisplayText.h"

namespace vxsched {

// The directory of this shared library.
std::string LibraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&LibraryDirectory), &info) == 0)
        throw CError(EError::cFailed,
                     "the dynamic linker does not know the path of the client library");
    const std::filesystem::path self = info.dli_fname;
    // The process may have changed its directory since the load.
    if (!self.is_absolute())
        throw CError(EError::cFailed,
                     "the client library was loaded by the relative path " +
                         Show(info.dli_fname).string +
                         ", which may lead elsewhere now; load it by an absolute one");
    return self.parent_path().string();
}

}  // namespace vxsched
