#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// A user's entry in the user database. One that is not there, as whom nobody can log in, has the
// number for its name, and what else a program needs.
struct TUser {
    std::optional<gid_t> group;  // the main one; none without an entry
    std::string name;
    std::string home = "/";
    std::string shell = "/bin/sh";
};
TUser FindUser(uid_t id);

// The user of a name, or else of a number, which needs no entry; empty if there is none.
std::optional<uid_t> FindUserId(const std::string& nameOrNumber);

// The same of a group.
std::optional<gid_t> FindGroupId(const std::string& nameOrNumber);

// The name of a group; its number if it has none.
std::string NameOfGroup(gid_t id);

// The groups of a user, the main one first, as a login or a service manager would set them; for one
// without an entry, `group` alone.
std::vector<gid_t> GroupsOf(uid_t id, gid_t group);
