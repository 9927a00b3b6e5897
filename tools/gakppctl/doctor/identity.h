#ifndef GAKPPC_IDENTITY_H
#define GAKPPC_IDENTITY_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace tools {

// A user as the kernel judges it.
struct Identity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // the supplementary ones

    bool IsIn(gid_t group) const;
};

// Whether users may be made members of a group: not of root's, nor of nogroup, which services that have nothing to do
// with each other share.
bool MayHaveMembers(gid_t group);

Identity CallerIdentity();

// With the groups that the user gets when it logs in. Raises ExitError for a name that nobody has.
Identity IdentityOfUser(const std::string& name);

// The same for the user that has this uid. Only uid and gid when the system has no name for it.
Identity IdentityAtLogin(uid_t uid, gid_t gid);

// Makes this process that user's, irrevocably. False when it may not.
bool Become(const Identity& user);

// What the mode of a file permits to a user: bits of 7, as in its last digit.
mode_t PermissionsOf(const Identity& user, const struct stat& file);

// "krova", or the number when the system has no name for it.
std::string UserName(uid_t uid);
std::string GroupName(gid_t gid);

// "user krova", "user 3001".
std::string UserText(uid_t uid);

// The same for a command line: the number where there is no name, or one that the shell would not take as it is.
std::string UserArgument(uid_t uid);
std::string GroupArgument(gid_t gid);

// Whether usermod can work with it: the name stands in this file (/etc/passwd, /etc/group) and needs no
// quoting.
bool IsLocalName(const std::string& name, const char* file);

}  // namespace tools

#endif
