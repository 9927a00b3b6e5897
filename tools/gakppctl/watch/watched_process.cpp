#include "watched_process.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "common/connections.h"
#include "common/exit_error.h"
#include "common/listeners.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr char kInstead[] =
    "without it: gakppctl tap shows the messages of workers that connect from now on, gakppctl list who is connected";

[[noreturn]] void ThrowNotRoot()
{
    throw ExitError(kExitFailed, fmt::format("watch has to run as root of the machine; {}", kInstead));
}

std::string Folder(pid_t pid)
{
    return fmt::format("/proc/{}", pid);
}

// glibc has wrappers for the system calls of process descriptors since 2.36.
Fd OpenPid(pid_t pid)
{
    return Fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

// Not the blank in front of "(deleted)", which the kernel adds.
bool IsPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || strchr("/._+-", c) != nullptr;
}

bool IsSameFile(const std::string& path, const std::string& other)
{
    struct stat file {
    }, otherFile{};
    return stat(path.c_str(), &file) == 0 && stat(other.c_str(), &otherFile) == 0 && file.st_dev == otherFile.st_dev &&
           file.st_ino == otherFile.st_ino;
}

// One line of /proc/PID/maps: "7f10-7f20 r-xp 00001000 fe:00 57 /usr/lib/libgakppc.so.1". Nothing for other files.
std::optional<LoadedLibrary> LibraryIn(const std::string& line, pid_t pid)
{
    const size_t slash = line.find('/');
    const bool isCode = line.find(" r-xp ") != std::string::npos;
    if (!isCode || slash == std::string::npos || line.find("/libgakppc.so", slash) == std::string::npos) {
        return std::nullopt;
    }
    LoadedLibrary library;
    library.path = line.substr(slash);
    library.file = fmt::format("{}/map_files/{}", Folder(pid), line.substr(0, line.find(' ')));
    library.isAtPath = std::all_of(library.path.begin(), library.path.end(), IsPlain) &&
                       IsSameFile(library.file, Folder(pid) + "/root" + library.path);
    return library;
}

LoadedLibrary FindLibrary(pid_t pid, const std::string& name)
{
    std::ifstream maps(Folder(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        if (const auto library = LibraryIn(line, pid)) {
            return *library;
        }
    }
    throw ExitError(kExitFailed,
                    fmt::format("process {} ({}) has not loaded libgakppc: there is nothing to watch", pid, name));
}

// The notes of tracepoints hold provider and name one after the other.
bool HasTracepoints(const std::string& file)
{
    constexpr char kNote[] = "gakppc\0message_received";
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        ThrowNotRoot();
    }
    const std::string content{std::istreambuf_iterator<char>(in), {}};
    return content.find(std::string(kNote, sizeof(kNote))) != std::string::npos;
}

std::string NameOf(const sockaddr_un& address, socklen_t length)
{
    const size_t begin = offsetof(sockaddr_un, sun_path);
    return length > begin ? std::string(address.sun_path, strnlen(address.sun_path, length - begin)) : "";
}

std::string OwnName(const Fd& socket)
{
    sockaddr_un address{};
    socklen_t length = sizeof(address);
    const bool isUnix =
        getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.sun_family == AF_UNIX;
    return isUnix ? NameOf(address, std::min<socklen_t>(length, sizeof(address))) : "";
}

bool Listens(const Fd& socket)
{
    int listens = 0;
    socklen_t length = sizeof(listens);
    return getsockopt(socket.get(), SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 && listens != 0;
}

// `isHidden`: there are others, which we may not see.
pid_t TheOnly(const std::vector<pid_t>& daemons, bool isHidden)
{
    if (daemons.empty() && isHidden) {
        ThrowNotRoot();
    }
    if (daemons.empty()) {
        throw ExitError(
            kExitNoDaemon,
            fmt::format("no daemon listens at {}; --pid watches any process that uses the library", kSocketPath));
    }
    if (daemons.size() > 1) {
        throw ExitError(kExitFailed, fmt::format("processes {} listen at {}: choose one with --pid",
                                                 fmt::join(daemons, ", "), kSocketPath));
    }
    return daemons.front();
}

}  // namespace

WatchedProcess::WatchedProcess(pid_t pid)
    : name_(Printable(ValueInFile(Folder(pid) + "/status", "Name"))), pidfd_(OpenPid(pid))
{
    struct stat folder {};
    if (!pidfd_.valid() || stat(Folder(pid).c_str(), &folder) == -1) {
        throw ExitError(kExitFailed, fmt::format("process {}: {}", pid, strerror(errno)));
    }
    if (geteuid() != 0) {
        ThrowNotRoot();
    }
    self_ = {pid, folder.st_uid};
    loaded_ = FindLibrary(pid, name_);
    if (!HasTracepoints(loaded_.file)) {
        throw ExitError(kExitFailed, fmt::format("{}, which process {} ({}) has loaded, has no tracepoints; {}",
                                                 loaded_.path, pid, name_, kInstead));
    }
    isDaemon_ = ListensAtDaemonsPath();
}

bool WatchedProcess::SharesPids() const
{
    std::error_code error;
    return fs::read_symlink(Folder(pid()) + "/ns/pid", error) == fs::read_symlink("/proc/self/ns/pid", error);
}

// A process that ends loses its memory before it becomes known that it has ended.
bool WatchedProcess::HasEnded() const
{
    pollfd end{pidfd_.get(), POLLIN, 0};
    return poll(&end, 1, 0) > 0 || (!HasLibrary() && !HasProgram());
}

bool WatchedProcess::HasReplacedItself() const
{
    return !HasLibrary() && HasProgram();
}

bool WatchedProcess::HasProgram() const
{
    struct stat file {};
    return stat((Folder(pid()) + "/exe").c_str(), &file) == 0;
}

bool WatchedProcess::HasLibrary() const
{
    struct stat file {};
    return lstat(loaded_.file.c_str(), &file) == 0;
}

Fd WatchedProcess::Duplicate(int descriptor) const
{
    return Fd(static_cast<int>(syscall(SYS_pidfd_getfd, pidfd_.get(), descriptor, 0)));
}

std::optional<WatchedEnd> WatchedProcess::EndOf(int descriptor) const
{
    const Fd socket = Duplicate(descriptor);
    sockaddr_un address{};
    socklen_t length = sizeof(address);
    if (!socket.valid() || getpeername(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == -1) {
        return std::nullopt;
    }
    return WatchedEnd{!OwnName(socket).empty(), PeerOf(socket)};
}

bool WatchedProcess::ListensAtDaemonsPath() const
{
    std::error_code error;
    for (fs::directory_iterator entry(Folder(pid()) + "/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        int descriptor = -1;
        std::from_chars(name.data(), name.data() + name.size(), descriptor);
        const bool isSocket = fs::read_symlink(entry->path(), error).string().compare(0, 7, "socket:") == 0;
        const Fd socket = isSocket ? Duplicate(descriptor) : Fd();
        if (socket.valid() && Listens(socket) && OwnName(socket) == kSocketPath) {
            return true;
        }
        error.clear();
    }
    return false;
}

pid_t FindDaemon()
{
    std::vector<pid_t> daemons;
    bool isHidden = false;
    for (const ServerSocket& server : FindServerSockets().servers) {
        const bool isReached = server.reach == Reach::kDirect || server.reach == Reach::kThroughTap;
        if (server.isTap || server.socket == 0) {
            continue;
        }
        if (server.processes.empty()) {
            isHidden = true;
            continue;
        }
        if (isReached) {
            return server.processes.front().pid;
        }
        daemons.push_back(server.processes.front().pid);
    }
    return TheOnly(daemons, isHidden);
}

}  // namespace tools
