#include "admission.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr mode_t kSearch = 1;
constexpr mode_t kWrite = 2;

constexpr char kKeepUmask[] =
    "the daemon makes the socket anew at each start: start it with umask 0007 (UMask=0007 in its unit)";

constexpr char kDirectoryForDaemon[] =
    "no daemon listens; the directory has to belong to the daemon's user, and to let the group of its workers in";

// A file on the way to the socket and what the user needs of it.
struct Requirement {
    const FileInfo* file;
    mode_t needed;
};

using Requirements = std::vector<Requirement>;

Requirements WayToSocket(const Facts& facts)
{
    return {{&facts.parent, kSearch}, {&facts.directory, kSearch}, {&facts.socket, kWrite}};
}

bool Permits(const Identity& user, const Requirement& requirement)
{
    return (PermissionsOf(user, requirement.file->status) & requirement.needed) != 0;
}

const Requirement* FirstUnmet(const Requirements& way, const Identity& user)
{
    const auto unmet =
        std::find_if(way.begin(), way.end(), [&user](const Requirement& one) { return !Permits(user, one); });
    return unmet == way.end() ? nullptr : &*unmet;
}

// Why the modes alone do not tell who may connect. Empty when they do.
std::string Obstacle(const Facts& facts, const Requirements& way)
{
    for (const Requirement& requirement : way) {
        const FileInfo& file = *requirement.file;
        if (!file.IsThere()) {
            return fmt::format("the mode of {} is unknown", file.path);
        }
        if (file.isLink) {
            return fmt::format("{} is a symbolic link: look at what it leads to", file.path);
        }
        if (file.hasAcl) {
            return fmt::format("{} has an access control list: see getfacl", file.path);
        }
    }
    const Requirement* unmet = FirstUnmet(way, facts.user);
    if (unmet == nullptr || unmet->file->path != BarrierOf(facts.attempt)) {
        return "it is not the modes of these files that refuse: a folder above them, a security module or a sandbox";
    }
    return "";
}

// The groups that the user has to join because it is neither the owner of a file nor in its group, and the rest of the
// world is kept out. Joining one may make it matter for another file, hence the repetition.
std::vector<gid_t> GroupsToJoin(const Requirements& way, Identity user)
{
    std::vector<gid_t> groups;
    for (;;) {
        const auto needsGroup = [&user](const Requirement& one) {
            const struct stat& file = one.file->status;
            return !Permits(user, one) && user.uid != file.st_uid && !user.IsIn(file.st_gid);
        };
        const auto found = std::find_if(way.begin(), way.end(), needsGroup);
        if (found == way.end()) {
            return groups;
        }
        const gid_t group = found->file->status.st_gid;
        groups.push_back(group);
        user.groups.push_back(group);
    }
}

// usermod knows local users and groups only. Empty when it does not know one of these.
std::string JoinCommand(const Identity& user, const std::vector<gid_t>& groups)
{
    std::vector<std::string> names;
    for (const gid_t group : groups) {
        names.push_back(GroupName(group));
        if (!IsLocalName(names.back(), "/etc/group")) {
            return "";
        }
    }
    const std::string name = UserName(user.uid);
    return IsLocalName(name, "/etc/passwd") ? fmt::format("usermod -aG {} {}", fmt::join(names, ","), name) : "";
}

// "the group krova", "the groups krova, staff".
std::string GroupsText(const std::vector<gid_t>& groups)
{
    std::vector<std::string> names(groups.size());
    std::transform(groups.begin(), groups.end(), names.begin(), GroupName);
    return fmt::format("the group{} {}", names.size() > 1 ? "s" : "", fmt::join(names, ", "));
}

std::string ModeCommand(const Identity& user, const Requirement& requirement)
{
    const char who = user.uid == requirement.file->status.st_uid ? 'u' : 'g';
    return fmt::format("chmod {}+{} {}", who, requirement.needed == kSearch ? 'x' : 'w', requirement.file->path);
}

Admission WithoutRepair(const std::string& advice)
{
    return {"", advice};
}

Admission CommandsFor(const Facts& facts, const Requirements& way)
{
    const std::vector<gid_t> groups = GroupsToJoin(way, facts.user);
    const auto closed = std::find_if_not(groups.begin(), groups.end(), MayHaveMembers);
    if (closed != groups.end()) {
        return WithoutRepair(
            fmt::format("these files belong to the group {}, which nobody should join: give the directory and the "
                        "daemon a group of their own (Group= in its unit)",
                        GroupName(*closed)));
    }
    std::vector<std::string> commands;
    std::vector<std::string> advice;
    Identity user = facts.user;
    if (!groups.empty()) {
        commands.push_back(JoinCommand(user, groups));
        if (commands.back().empty()) {
            return WithoutRepair(fmt::format("{} has to join {}", UserName(user.uid), GroupsText(groups)));
        }
        user.groups.insert(user.groups.end(), groups.begin(), groups.end());
        advice.emplace_back("the group counts for processes that the user starts after logging in anew");
    }
    for (const Requirement& requirement : way) {
        if (!Permits(user, requirement)) {
            if (facts.isTapped && requirement.file == &facts.socket) {
                return WithoutRepair("a tap is in place: ask again when it has ended");
            }
            commands.push_back(ModeCommand(user, requirement));
            if (requirement.needed == kWrite) {
                advice.emplace_back(kKeepUmask);
            }
        }
    }
    return {fmt::format("{}", fmt::join(commands, " && ")), fmt::format("{}", fmt::join(advice, "; "))};
}

// A process keeps the groups with which its user logged in.
bool HasJoinedSince(const Facts& facts, const Requirements& way)
{
    const std::string barrier = BarrierOf(facts.attempt);
    const auto stop =
        std::find_if(way.begin(), way.end(), [&barrier](const Requirement& one) { return one.file->path == barrier; });
    const Identity login = IdentityAtLogin(facts.user.uid, facts.user.gid);
    return stop != way.end() && stop->file->IsThere() && !Permits(facts.user, *stop) && Permits(login, *stop);
}

}  // namespace

std::string BarrierOf(const Attempt& attempt)
{
    const std::pair<int, const char*> steps[] = {{attempt.enterHome, "/home"},
                                                 {attempt.enterParent, kHomeDir},
                                                 {attempt.enterDirectory, kSocketDir},
                                                 {attempt.writeSocket, kSocketPath}};
    for (const auto& [error, path] : steps) {
        if (error == EACCES) {
            return path;
        }
    }
    return "";
}

Admission AdmissionOf(const Facts& facts)
{
    const Requirements way = WayToSocket(facts);
    if (HasJoinedSince(facts, way)) {
        return WithoutRepair("the user has joined the group after this session began: log in anew");
    }
    if (facts.socketHeld == Held::kNo) {
        return WithoutRepair(BarrierOf(facts.attempt) == kSocketPath ? kKeepUmask : kDirectoryForDaemon);
    }
    const std::string obstacle = Obstacle(facts, way);
    if (obstacle.empty() && facts.socketHeld == Held::kYes) {
        return CommandsFor(facts, way);
    }
    const std::string reason = obstacle.empty() ? "whether a daemon listens is unknown" : obstacle;
    return WithoutRepair(facts.callerIsRoot ? reason
                                            : fmt::format("{}; root is told more: gakppctl doctor --user {}", reason,
                                                          UserName(facts.user.uid)));
}

}  // namespace tools
