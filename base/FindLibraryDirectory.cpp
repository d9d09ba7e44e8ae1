#include "base/FindLibraryDirectory.h"

#include <system_error>

namespace fs = std::filesystem;

fs::path FindLibraryDirectory(const fs::path& file, const fs::path& installed) {
    std::error_code ignored;
    const fs::path root = fs::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
    return root / (fs::exists(root / "lib" / file, ignored) ? "lib" : installed);
}
