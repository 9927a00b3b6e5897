#ifndef GAKPPC_MACHINE_H
#define GAKPPC_MACHINE_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool.h"

namespace gaktest {

extern const std::string kHome;       // the parent of the socket directory
extern const std::string kDir;        // the socket directory
extern const std::string kSock;       // the daemon's socket
extern const std::string kSavedSock;  // where a tap keeps it
extern const std::string kOtherPrefix;

// Raised for what this machine does not offer.
class NotPossible : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The users of the machine. krova runs the daemon, member is in its group, staff is in root's.
struct User {
    const char* name;
    uid_t uid;
    gid_t gid;
};
extern const User kRoot, kKrova, kMember, kOutsider, kStaff;
extern const User kNameless;  // the system has no name for this user and its group
extern const User kNogroup;   // the group of those who have none

// Why no such machine can be made here. Empty when it can.
std::string ReasonToSkip();

// A machine with users, programs and processes of its own, in the mount namespace of this test. Only one at a time.
class Machine {
public:
    // /home/KrovaUser belongs to krova and is empty; nothing runs.
    Machine();
    ~Machine();  // NOLINT(bugprone-exception-escape): what cannot be removed ends the tests
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // ---- Files ----
    static void Make(const std::string& directory, mode_t mode, const User& owner, const User& group);
    static void Chmod(const std::string& path, mode_t mode);
    static void Chown(const std::string& path, const User& owner, const User& group);
    // An access control list that gives `user` these permissions, and everybody else what the mode says.
    static void AddAcl(const std::string& path, const User& user, unsigned permissions);
    // As containers have it: files on several file systems, which the kernel's table and stat number differently.
    static void MountOverlay(const std::string& path);
    static void RemountReadOnly(const std::string& path);
    static void MountTmpfs(const std::string& path, const std::string& options);

    // Daemons that start from now on, and their library, come from another prefix than the tools.
    static void InstallElsewhere();

    // ---- Processes ----
    // gakppcd, as this user and group; `wrapper` runs before it.
    void StartDaemon(const User& user, const User& group, const std::string& umask, const std::string& wrapper = "");
    pid_t DaemonPid() const { return daemon_ == nullptr ? 0 : daemon_->pid(); }
    void StopDaemon(int signal);
    // As by Ctrl-Z: it stays, and does nothing.
    void StopProcess();
    // As by a debugger, which this process is.
    void TraceProcess();
    // It runs on, unnoticed.
    void ForgetDaemon() { others_.push_back(std::move(daemon_)); }
    void StartTap(const User& user);
    void StopTap(int signal);
    void StopTapProcess();
    // Until it says this.
    void WaitForTap(const std::string& text);
    // A process that listens, or only binds, with plain system calls; `root` is its root directory.
    void StartListener(const User& user, const std::string& path, int type, mode_t mask, const std::string& root = "/");
    // The same with a stream socket, as long as it has not called listen.
    void StartBound(const User& user, const std::string& path, mode_t mask);
    void StopListeners() { listeners_.clear(); }
    // Connects until the daemon accepts no more and its queue is full.
    void FillQueue();
    // The connection of a worker that has been there since the daemon's start.
    bool SessionStands() const;

    // ---- The doctor ----
    // Whose session it runs in: the groups of a login, or those that `groups` (words for setpriv) says.
    void SetGroups(const User& user, const std::string& groups) { groups_[user.name] = groups; }
    // What runs the doctor, before setpriv: a container.
    void SetWrapper(const std::vector<std::string>& wrapper) { wrapper_ = wrapper; }
    Outcome RunDoctor(const User& user, const std::vector<std::string>& arguments) const;

    // ---- What is to stay ----
    // Each file below /home/KrovaUser with what a change of it would change, and each line of /etc/passwd and
    // /etc/group under its first word.
    static std::map<std::string, std::string> Snapshot();
    // Which users could connect to a daemon at this moment. Nothing reaches it.
    static std::vector<std::string> WhoMayConnect();

private:
    // A process that does this as `user`, below `root`, and then nothing.
    void StartProcess(const User& user, const std::string& root, const std::function<bool()>& act);
    Tool* Start(const User& user, const User& group, const std::string& umask, const std::string& command,
                const std::string& wrapper = "");

    std::unique_ptr<Tool> daemon_;
    std::unique_ptr<Tool> tap_;
    std::vector<std::unique_ptr<Tool>> others_;
    std::vector<std::unique_ptr<ChildProcess>> listeners_;
    std::vector<Fd> connections_;
    Fd session_;
    std::map<std::string, std::string> groups_;
    std::vector<std::string> wrapper_;
};

}  // namespace gaktest

#endif
