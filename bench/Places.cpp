#include "bench/Places.h"

#include <benchmark/benchmark.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

static std::map<std::string, std::string> gDirectories;

static std::string MakeDirectoryIn(const std::string& parent) {
    std::string directory = parent + "/vantrix-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror(("cannot make a directory in " + parent).c_str());
        std::exit(1);
    }
    std::filesystem::create_directory(directory + "/files");
    return directory;
}

static std::string FileSystemOf(const std::string& directory) {
    struct statfs status {};
    if (statfs(directory.c_str(), &status) != 0)
        return "unknown";
    switch (status.f_type) {
        case EXT4_SUPER_MAGIC:
            return "ext4";
        case TMPFS_MAGIC:
            return "tmpfs";
        case BTRFS_SUPER_MAGIC:
            return "btrfs";
        case XFS_SUPER_MAGIC:
            return "xfs";
        case OVERLAYFS_SUPER_MAGIC:
            return "overlayfs";
        default:
            return "number " + std::to_string(status.f_type);
    }
}

CPlaces::CPlaces() {
    const char* const memory = std::getenv("BENCH_MEMORY");
    gDirectories["disk"] = MakeDirectoryIn(std::filesystem::current_path().string());
    gDirectories["tmpfs"] = MakeDirectoryIn(memory != nullptr ? memory : "/dev/shm");
    for (const auto& [place, directory] : gDirectories)
        benchmark::AddCustomContext(place, FileSystemOf(directory));
    EnterPlace(cPlaces[0]);
}

CPlaces::~CPlaces() {
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    for (const auto& [place, directory] : gDirectories)
        std::filesystem::remove_all(directory, ignored);
}

void EnterPlace(const std::string& place) {
    std::filesystem::current_path(gDirectories.at(place));
}
