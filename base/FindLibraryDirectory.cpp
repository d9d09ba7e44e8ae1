#include "base/FindLibraryDirectory.h"

#include <system_error>

namespace fs = std::filesystem;

fs::path FindLibraryDirectory(const fs::path& file, const fs::path& installed) {
    std::error_code ignored;
    const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
    if (!self.is_absolute())
        return {};
    const fs::path root = self.parent_path().parent_path();
    return root / (fs::exists(root / "lib" / file, ignored) ? "lib" : installed);
}
