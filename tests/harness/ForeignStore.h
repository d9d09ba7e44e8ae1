#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Process.h"

// A store of another user's, on which the superuser works.

inline constexpr uid_t cForeignUser = 65534;

// Whether this process may make files of another user's, and become that user. The superuser of a
// user namespace may do so only with users that are in its map.
inline bool HasASecondUser() {
    CForkedChild child([] {
        return geteuid() == 0 && setgid(cForeignUser) == 0 && setuid(cForeignUser) == 0 ? 42 : 1;
    });
    return child.Wait() == 42;
}

// The kernel lets nobody but the superuser have a second user: a user namespace of an ordinary user's
// has one user only.
#define REQUIRE_SUPERUSER()                                                                  \
    if (!HasASecondUser())                                                                   \
    GTEST_SKIP()                                                                             \
        << "this test needs a second user, 65534, as whom only the superuser can work: run " \
           "it as root, where /proc/self/uid_map has that user"

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
