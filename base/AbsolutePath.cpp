#include "base/AbsolutePath.h"

#include <system_error>

namespace vxsched {

std::string AbsolutePath(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error)
        return path.string();
    std::filesystem::path shown;
    for (const std::filesystem::path& part : absolute) {
        if (part != "." && !part.empty())
            shown /= part;
    }
    return shown.string();
}

}  // namespace vxsched
