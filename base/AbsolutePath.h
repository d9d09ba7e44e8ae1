#pragma once

#include <filesystem>
#include <string>

namespace vxsched {

// `path` for a message, from the root and without ".". A ".." stays, since what is before it may be a
// link. As it is where the working directory cannot be determined.
std::string AbsolutePath(const std::filesystem::path& path);

}  // namespace vxsched
