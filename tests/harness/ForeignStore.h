#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

// A store of another user's, on which the superuser works.

inline constexpr uid_t cForeignUser = 65534;

// Only the superuser can make files of another user's: no test of that has a meaning without.
#define REQUIRE_SUPERUSER() \
    if (geteuid() != 0)     \
    GTEST_SKIP() << "only the superuser can make a store of another user's"

// Gives the directory of the test with its "files", and the table if there is one, to that user.
inline void GiveStoreTo(uid_t user) {
    ASSERT_EQ(chmod(".", 0755), 0);
    for (const char* const path : {".", "files"})
        ASSERT_EQ(chown(path, user, user), 0) << path;
    lchown("files/scheduler.dat", user, user);
}

inline uid_t OwnerOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
}
