#include "client/LibraryDirectory.h"

#include <dlfcn.h>

#include <filesystem>

namespace vxsched {

// The directory of this shared library.
std::string LibraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&LibraryDirectory), &info) == 0)
        return ".";
    std::error_code error;
    return std::filesystem::absolute(info.dli_fname, error).parent_path().string();
}

}  // namespace vxsched
