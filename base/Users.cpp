#include "base/Users.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <charconv>
#include <system_error>

TUser FindUser(uid_t id) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 1 << 14> strings{};
    if (getpwuid_r(id, &entry, strings.data(), strings.size(), &found) != 0 || found == nullptr)
        return {.group = {}, .name = std::to_string(id)};
    TUser known{.group = found->pw_gid, .name = found->pw_name, .home = found->pw_dir};
    if (*found->pw_shell != '\0')
        known.shell = found->pw_shell;
    return known;
}

// All bits set is no id: the calls that take one leave the present one then.
template <typename Id>
static std::optional<Id> ParseId(const std::string& digits) {
    Id id = 0;
    const char* const end = digits.data() + digits.size();
    const auto [parsed, error] = std::from_chars(digits.data(), end, id);
    return error == std::errc() && parsed == end && id != static_cast<Id>(-1) ? std::optional(id)
                                                                              : std::nullopt;
}

std::optional<uid_t> FindUserId(const std::string& nameOrNumber) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 1 << 14> strings{};
    if (getpwnam_r(nameOrNumber.c_str(), &entry, strings.data(), strings.size(), &found) == 0 &&
        found != nullptr)
        return found->pw_uid;
    return ParseId<uid_t>(nameOrNumber);
}

std::optional<gid_t> FindGroupId(const std::string& nameOrNumber) {
    group entry{};
    group* found = nullptr;
    std::array<char, 1 << 16> strings{};
    if (getgrnam_r(nameOrNumber.c_str(), &entry, strings.data(), strings.size(), &found) == 0 &&
        found != nullptr)
        return found->gr_gid;
    return ParseId<gid_t>(nameOrNumber);
}

std::string NameOfGroup(gid_t id) {
    group entry{};
    group* found = nullptr;
    std::array<char, 1 << 16> strings{};
    if (getgrgid_r(id, &entry, strings.data(), strings.size(), &found) != 0 || found == nullptr)
        return std::to_string(id);
    return found->gr_name;
}

std::vector<gid_t> GroupsOf(uid_t id, gid_t group) {
    const TUser user = FindUser(id);
    if (!user.group)
        return {group};
    std::vector<gid_t> groups(1);
    auto count = static_cast<int>(groups.size());
    while (getgrouplist(user.name.c_str(), *user.group, groups.data(), &count) == -1)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}
