#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

// A link in files/programs/ of this directory that is in use, as an earlier version has made it for a
// program that the add-in cannot launch by its own path. The result is its path for the table.
inline std::string MakeProgramLink(const std::string& program, const std::string& name) {
    namespace fs = std::filesystem;
    fs::create_directories("files/programs");
    const fs::path link = fs::absolute("files/programs") / name;
    fs::create_symlink(program, link);
    const timespec inUse[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, {.tv_sec = 0, .tv_nsec = 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, link.c_str(), inUse, AT_SYMLINK_NOFOLLOW), 0);
    return link.string();
}
