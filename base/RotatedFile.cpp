#include "base/RotatedFile.h"

#include <sys/stat.h>

#include <cstdio>

bool RotateBeyond(const std::string& path, std::uint64_t limit, std::uint64_t coming) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || status.st_size == 0 ||
        static_cast<std::uint64_t>(status.st_size) + coming <= limit)
        return true;
    return std::rename(path.c_str(), (path + ".1").c_str()) == 0;
}
