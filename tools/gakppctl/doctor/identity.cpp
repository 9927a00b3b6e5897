#include "identity.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>

#include "common/exit_error.h"

namespace tools {
namespace {

constexpr mode_t kAllPermissions = 7;
constexpr gid_t kRootGroup = 0;
constexpr gid_t kNogroup = 65534;  // also what the kernel shows for a group that has no number here

Identity IdentityOf(const passwd& user)
{
    Identity identity{user.pw_uid, user.pw_gid, {}};
    int count = 0;
    getgrouplist(user.pw_name, user.pw_gid, nullptr, &count);
    identity.groups.resize(static_cast<size_t>(count));
    if (getgrouplist(user.pw_name, user.pw_gid, identity.groups.data(), &count) == -1) {
        throw ExitError(kExitFailed, fmt::format("the groups of {} cannot be read", user.pw_name));
    }
    return identity;
}

bool IsPlain(const std::string& name)
{
    const auto plain = [](unsigned char c) { return isalnum(c) != 0 || c == '_' || c == '.' || c == '-'; };
    return !name.empty() && name.front() != '-' && std::all_of(name.begin(), name.end(), plain);
}

}  // namespace

bool Identity::IsIn(gid_t group) const
{
    return gid == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool MayHaveMembers(gid_t group)
{
    return group != kRootGroup && group != kNogroup;
}

Identity CallerIdentity()
{
    Identity identity{geteuid(), getegid(), {}};
    identity.groups.resize(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(identity.groups.size()), identity.groups.data());
    identity.groups.resize(static_cast<size_t>(std::max(count, 0)));
    return identity;
}

Identity IdentityOfUser(const std::string& name)
{
    const passwd* user = getpwnam(name.c_str());
    if (user == nullptr) {
        throw ExitError(kExitUsage, fmt::format("there is no user {:.100}", name));
    }
    return IdentityOf(*user);
}

Identity IdentityAtLogin(uid_t uid, gid_t gid)
{
    const passwd* user = getpwuid(uid);
    return user != nullptr ? IdentityOf(*user) : Identity{uid, gid, {}};
}

bool Become(const Identity& user)
{
    return setgroups(user.groups.size(), user.groups.data()) == 0 && setresgid(user.gid, user.gid, user.gid) == 0 &&
           setresuid(user.uid, user.uid, user.uid) == 0;
}

mode_t PermissionsOf(const Identity& user, const struct stat& file)
{
    if (user.uid == 0) {
        return kAllPermissions;
    }
    if (user.uid == file.st_uid) {
        return file.st_mode >> 6 & kAllPermissions;
    }
    return (user.IsIn(file.st_gid) ? file.st_mode >> 3 : file.st_mode) & kAllPermissions;
}

std::string UserName(uid_t uid)
{
    const passwd* user = getpwuid(uid);
    return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string GroupName(gid_t gid)
{
    const group* group = getgrgid(gid);
    return group != nullptr ? group->gr_name : std::to_string(gid);
}

std::string UserText(uid_t uid)
{
    return "user " + UserName(uid);
}

std::string UserArgument(uid_t uid)
{
    const passwd* user = getpwuid(uid);
    return user != nullptr && IsPlain(user->pw_name) ? user->pw_name : std::to_string(uid);
}

std::string GroupArgument(gid_t gid)
{
    const group* group = getgrgid(gid);
    return group != nullptr && IsPlain(group->gr_name) ? group->gr_name : std::to_string(gid);
}

bool IsLocalName(const std::string& name, const char* file)
{
    if (!IsPlain(name)) {
        return false;
    }
    std::ifstream entries(file);
    for (std::string entry; std::getline(entries, entry);) {
        if (entry.compare(0, name.size() + 1, name + ":") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace tools
