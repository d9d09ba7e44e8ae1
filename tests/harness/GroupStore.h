#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "Process.h"

// Users of this test's own: one with a store, another of the store's group, and a third.

inline constexpr uid_t cKeeper = 60001;
inline constexpr uid_t cMember = 60002;
inline constexpr uid_t cStranger = 60003;
inline constexpr gid_t cStoreGroup = 60010;

// Each has a group of its own, two are in the store's, and the stranger's home is missing. The
// databases of users and groups are replaced for this process and those that it starts. False where
// the system does not permit it.
inline bool EnterUserDatabase() {
    const std::string passwd = std::filesystem::absolute("passwd");
    const std::string group = std::filesystem::absolute("group");
    WriteFile(passwd,
              "root:x:0:0::/:/bin/sh\n"
              "keeper:x:60001:60001::/:/bin/sh\n"
              "member:x:60002:60002::/:/bin/sh\n"
              "stranger:x:60003:60003::" +
                  std::filesystem::absolute("homeless").string() + ":/bin/sh\n");
    WriteFile(group,
              "root:x:0:\nkeeper:x:60001:\nmember:x:60002:\nstranger:x:60003:\n"
              "team:x:60010:keeper,member\n");
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(passwd.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0 &&
           mount(group.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0;
}

// The command line of a program as one of these users, with the groups that a login gives.
inline std::vector<std::string> As(uid_t user, const std::vector<std::string>& command) {
    const std::string id = std::to_string(user);
    std::vector<std::string> whole = {"/usr/bin/setpriv", "--reuid", id,
                                      "--regid",          id,        "--init-groups"};
    whole.insert(whole.end(), command.begin(), command.end());
    return whole;
}
