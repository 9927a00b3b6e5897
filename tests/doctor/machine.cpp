#include "machine.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace gaktest {

namespace fs = std::filesystem;

const std::string kHome = "/home/KrovaUser";
const std::string kDir = kHome + "/qel_ppc";
const std::string kSock = kDir + "/sock_server_19280";
const std::string kSavedSock = kSock + ".tap";
const std::string kOtherPrefix = "/home/elsewhere/prefix";

const User kRoot{"root", 0, 0};
const User kKrova{"krova", 3001, 4001};
const User kMember{"member", 3002, 4002};
const User kOutsider{"outsider", 3003, 4003};
const User kStaff{"staff", 3004, 4004};
const User kNameless{"nobody", 3005, 4005};
const User kNogroup{"nogroup", 65534, 65534};

namespace {

constexpr char kPasswd[] =
    "root:x:0:0::/root:/bin/sh\nkrova:x:3001:4001::/home/KrovaUser:/bin/sh\nmember:x:3002:4002::/:/bin/sh\n"
    "outsider:x:3003:4003::/:/bin/sh\nstaff:x:3004:4004::/:/bin/sh\n";
constexpr char kGroup[] =
    "root:x:0:staff\nkrova:x:4001:member\nmember:x:4002:\noutsider:x:4003:\nstaff:x:4004:\nnogroup:x:65534:\n";
const std::string kPrograms = "/etc/programs";  // where every user comes to

void Check(bool ok, const std::string& what)
{
    if (!ok) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

void WriteFile(const std::string& path, const std::string& text)
{
    Check(static_cast<bool>(std::ofstream(path) << text << std::flush), path);
}

// Users of its own: an /etc with nothing in it but what names users, and what programs need to start.
void MountEtc()
{
    std::map<std::string, std::string> kept;
    for (const char* name : {"ld.so.cache", "login.defs"}) {
        std::ostringstream text;
        text << std::ifstream(std::string("/etc/") + name).rdbuf();
        kept[name] = text.str();
    }
    Machine::MountTmpfs("/etc", "mode=0755");
    for (const auto& [name, text] : kept) {
        WriteFile("/etc/" + name, text);
    }
    WriteFile("/etc/nsswitch.conf", "passwd: files\ngroup: files\nshadow: files\ngshadow: files\n");
}

void WriteUsers()
{
    WriteFile("/etc/passwd", kPasswd);
    WriteFile("/etc/group", kGroup);
    WriteFile("/etc/shadow", "root:*:1::::::\nkrova:*:1::::::\nmember:*:1::::::\noutsider:*:1::::::\n");
    WriteFile("/etc/gshadow", "root:*::staff\nkrova:*::member\nmember:*::\noutsider:*::\nstaff:*::\n");
}

void Bind(const std::string& folder, const std::string& at)
{
    fs::create_directories(at);
    Check(folder.empty() || mount(folder.c_str(), at.c_str(), nullptr, MS_BIND, nullptr) == 0, folder);
}

// The programs where every user finds them, wherever the build folder is.
void BindPrograms()
{
    Bind(GAKPPC_PROGRAM_DIR, kPrograms + "/bin");
    Bind(GAKPPC_LIBRARY_DIR, kPrograms + "/lib");
    Bind(GAKPPC_PLATFORM_DIR, kPrograms + "/platform");
}

void PrepareOnce()
{
    static bool prepared = false;
    if (!prepared) {
        prepared = true;
        Check(unshare(CLONE_NEWNET) == 0, "unshare");  // the kernel's table of sockets knows no other daemons there
        MountEtc();
        BindPrograms();
    }
}

std::string DaemonProgram()
{
    return fs::exists(kOtherPrefix) ? kOtherPrefix + "/bin/gakppcd" : kPrograms + "/bin/gakppcd";
}

std::string LibraryPath()
{
    return "LD_LIBRARY_PATH=" + kOtherPrefix + "/lib:" + kPrograms + "/lib:" + kPrograms + "/platform";
}

void RemoveHome()
{
    for (const std::string& path :
         {kDir, kHome, std::string("/home/elsewhere/other"), std::string("/home/elsewhere")}) {
        while (umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
        }
    }
    Machine::Chmod("/home", 0755);
    fs::remove_all("/home/elsewhere");
    fs::remove_all(kHome);
    for (int i = 1; i < 10; ++i) {
        fs::remove_all(kHome + ".moved" + std::to_string(i));
    }
}

bool Become(const User& user)
{
    return initgroups(user.name, user.gid) == 0 && setresgid(user.gid, user.gid, user.gid) == 0 &&
           setresuid(user.uid, user.uid, user.uid) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
           prctl(PR_SET_DUMPABLE, 1) == 0;
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A socket of another type comes as far as a connection does, and no further.
bool MayConnect()
{
    const Fd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = AddressOf(kSock);
    return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 &&
           errno == EPROTOTYPE;
}

std::string StateOf(const fs::path& path)
{
    struct stat file {};
    lstat(path.c_str(), &file);
    std::ostringstream state;
    state << std::oct << file.st_mode << std::dec << " " << file.st_uid << ":" << file.st_gid << " inode "
          << file.st_ino;
    return state.str();
}

void AddLines(const std::string& file, std::map<std::string, std::string>& snapshot)
{
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        snapshot[line.substr(0, line.find(':'))] += line + "\n";
    }
}

// The socket stays open.
int Bind(const std::string& path, int type, mode_t mask)
{
    umask(mask);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = AddressOf(path);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? fd : -1;
}

bool Listen(const std::string& path, int type, mode_t mask)
{
    const int fd = Bind(path, type, mask);
    return fd != -1 && (type == SOCK_DGRAM || listen(fd, 10) == 0);
}

void Suspend(Tool& tool)
{
    tool.Kill(SIGSTOP);
    const auto isStopped = [&tool] {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(tool.pid()), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == tool.pid();
    };
    Check(WaitUntil(isStopped, kLimit), "a process does not stop");
}

}  // namespace

std::string ReasonToSkip()
{
#ifdef GAKPPC_EMULATED
    return "the emulator knows neither the kernel's table of sockets nor the groups of a peer";
#endif
    if (!MapsOtherUsers()) {
        return "there is no other user in the namespace of an ordinary user's test run";
    }
    ChildProcess other([] {
        return unshare(CLONE_NEWNET) == 0 && setgroups(0, nullptr) == 0 && setresuid(3001, 3001, 3001) == 0 ? 0 : 1;
    });
    return other.WaitExit(kLimit).ExitedWith(0) ? "" : "no network of one's own, or no other user, is permitted here";
}

Machine::Machine()
{
    PrepareOnce();
    RemoveHome();
    WriteUsers();
    Make(kHome, 0755, kKrova, kKrova);
}

Machine::~Machine()  // NOLINT(bugprone-exception-escape): as declared
{
    tap_.reset();
    daemon_.reset();
    others_.clear();
    listeners_.clear();
    RemoveHome();
}

void Machine::Make(const std::string& directory, mode_t mode, const User& owner, const User& group)
{
    Check(mkdir(directory.c_str(), mode) == 0, directory);
    Chown(directory, owner, group);
    Chmod(directory, mode);
}

void Machine::Chmod(const std::string& path, mode_t mode)
{
    Check(chmod(path.c_str(), mode) == 0, path);
}

void Machine::Chown(const std::string& path, const User& owner, const User& group)
{
    Check(chown(path.c_str(), owner.uid, group.gid) == 0, path);
}

void Machine::AddAcl(const std::string& path, const User& user, unsigned permissions)
{
    struct stat file {};
    Check(stat(path.c_str(), &file) == 0, path);
    const auto bits = [&file](unsigned shift) { return static_cast<uint16_t>(file.st_mode >> shift & 7); };
    struct {
        posix_acl_xattr_header header;
        posix_acl_xattr_entry entries[5];
    } acl{{POSIX_ACL_XATTR_VERSION},
          {{ACL_USER_OBJ, bits(6), 0xFFFFFFFF},
           {ACL_USER, static_cast<uint16_t>(permissions), user.uid},
           {ACL_GROUP_OBJ, bits(3), 0xFFFFFFFF},
           {ACL_MASK, 7, 0xFFFFFFFF},
           {ACL_OTHER, bits(0), 0xFFFFFFFF}}};
    if (setxattr(path.c_str(), "system.posix_acl_access", &acl, sizeof(acl), 0) == -1 && errno == EOPNOTSUPP) {
        throw NotPossible("this file system has no access control lists");
    }
}

void Machine::MountOverlay(const std::string& path)
{
    const std::string base = "/home/elsewhere";
    fs::create_directory(base);
    MountTmpfs(base, "mode=0755");
    for (const char* folder : {"/upper", "/work", "/lower", "/other"}) {
        fs::create_directory(base + folder);
    }
    MountTmpfs(base + "/other", "mode=0755");
    const std::string options =
        "lowerdir=" + base + "/lower:" + base + "/other,upperdir=" + base + "/upper,workdir=" + base + "/work";
    if (mount("overlay", path.c_str(), "overlay", 0, options.c_str()) == -1) {
        throw NotPossible("overlay file systems are not permitted here");
    }
}

void Machine::RemountReadOnly(const std::string& path)
{
    Check(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0, "mount " + path);
}

void Machine::MountTmpfs(const std::string& path, const std::string& options)
{
    Check(mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0, "mount " + path);
}

Tool* Machine::Start(const User& user, const User& group, const std::string& umask, const std::string& command,
                     const std::string& wrapper)
{
    std::ostringstream script;
    script << "umask " << umask << " && exec " << wrapper << " setpriv --reuid=" << user.uid << " --regid=" << group.gid
           << " --init-groups --pdeathsig=KILL " << command;
    return new Tool("sh", {"-c", script.str()}, Tool::Output::kPipe, {LibraryPath()});
}

void Machine::StartDaemon(const User& user, const User& group, const std::string& umask, const std::string& wrapper)
{
    daemon_.reset(Start(user, group, umask, DaemonProgram() + " --replace", wrapper));
    Check(daemon_->WaitForOut("SERVING"), "the daemon does not serve");
    session_ = RawConnect(kServer);
}

void Machine::StopDaemon(int signal)
{
    daemon_->Kill(signal);
    Check(daemon_->Finish().ended, "the daemon does not end");
    daemon_.reset();
    session_.Reset();
}

void Machine::StopProcess()
{
    Suspend(*daemon_);
}

void Machine::TraceProcess()
{
    if (ptrace(PTRACE_SEIZE, DaemonPid(), nullptr, nullptr) == -1) {
        throw NotPossible("tracing another process is not permitted here");
    }
    Check(ptrace(PTRACE_INTERRUPT, DaemonPid(), nullptr, nullptr) == 0, "PTRACE_INTERRUPT");
    int status = 0;
    Check(waitpid(DaemonPid(), &status, __WALL) == DaemonPid() && WIFSTOPPED(status), "the daemon does not stop");
}

void Machine::StartTap(const User& user)
{
    tap_.reset(Start(user, user, "0077", kPrograms + "/bin/gakppctl tap"));
    Check(tap_->WaitForErr("in place"), "the tap does not start");
}

void Machine::StopTap(int signal)
{
    tap_->Kill(signal);
    Check(tap_->Finish().ended, "the tap does not end");
    tap_.reset();
}

void Machine::StopTapProcess()
{
    Suspend(*tap_);
}

void Machine::WaitForTap(const std::string& text)
{
    Check(tap_->WaitForErr(text), "the tap does not say: " + text);
}

void Machine::StartProcess(const User& user, const std::string& root, const std::function<bool()>& act)
{
    const auto [out, in] = SocketPair();
    listeners_.push_back(std::make_unique<ChildProcess>([&user, &root, &act, &ready = in] {
        if ((root != "/" && chroot(root.c_str()) == -1) || !Become(user) || !act() || write(ready.get(), "r", 1) != 1) {
            return 1;
        }
        for (;;) {
            pause();
        }
    }));
    char byte = 0;
    Check(WaitReadable(out, kLimit) && read(out.get(), &byte, 1) == 1, "the process does not get as far as that");
}

void Machine::StartListener(const User& user, const std::string& path, int type, mode_t mask, const std::string& root)
{
    StartProcess(user, root, [&] { return Listen(path, type, mask); });
}

void Machine::StartBound(const User& user, const std::string& path, mode_t mask)
{
    StartProcess(user, "/", [&] { return Bind(path, SOCK_STREAM, mask) != -1; });
}

void Machine::FillQueue()
{
    const std::string descriptors = "/proc/" + std::to_string(DaemonPid()) + "/fd";
    const Deadline deadline(kLimit);
    for (int refused = 0; refused < 20 && !deadline.Passed();) {
        Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_un address = AddressOf(kSock);
        if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            connections_.push_back(std::move(fd));
            refused = 0;
        } else {
            Check(errno == EAGAIN, "connect");
            ++refused;
            WaitUntil([] { return false; }, std::chrono::milliseconds(10));  // nothing tells when it accepts
        }
    }
}

void Machine::InstallElsewhere()
{
    fs::create_directories(kOtherPrefix + "/bin");
    fs::create_directories(kOtherPrefix + "/lib");
    fs::copy(kPrograms + "/bin/gakppcd", kOtherPrefix + "/bin/gakppcd");
    fs::copy(kPrograms + "/lib/libgakppc.so.1", kOtherPrefix + "/lib/libgakppc.so.1");
}

bool Machine::SessionStands() const
{
    if (!session_.valid()) {
        return true;
    }
    char byte = 0;
    return recv(session_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == -1 && errno == EAGAIN;
}

Outcome Machine::RunDoctor(const User& user, const std::vector<std::string>& arguments) const
{
    std::vector<std::string> words = wrapper_;
    const auto groups = groups_.find(user.name);
    const std::string which = groups == groups_.end() ? "--init-groups" : groups->second;
    words.insert(words.end(), {"setpriv", "--reuid=" + std::to_string(user.uid), "--regid=" + std::to_string(user.gid),
                               which, kPrograms + "/bin/gakppctl", "doctor"});
    words.insert(words.end(), arguments.begin(), arguments.end());
    Tool tool("env", words, Tool::Output::kPipe, {LibraryPath()});
    const ExitStatus status = tool.Finish();
    return {status, tool.out(), tool.err()};
}

std::map<std::string, std::string> Machine::Snapshot()
{
    std::map<std::string, std::string> snapshot;
    AddLines("/etc/passwd", snapshot);
    AddLines("/etc/group", snapshot);
    std::error_code error;
    snapshot[kHome] = StateOf(kHome);
    for (const auto& entry : fs::recursive_directory_iterator(kHome, error)) {
        snapshot[entry.path()] = StateOf(entry.path());
    }
    return snapshot;
}

std::vector<std::string> Machine::WhoMayConnect()
{
    std::vector<std::string> names;
    for (const User* user : {&kRoot, &kKrova, &kMember, &kOutsider, &kStaff}) {
        ChildProcess child([user] { return Become(*user) && MayConnect() ? 0 : 1; });
        if (child.WaitExit(kLimit).ExitedWith(0)) {
            names.emplace_back(user->name);
        }
    }
    return names;
}

}  // namespace gaktest
