#include "control_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "common/deadline.h"
#include "common/exit_error.h"
#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr int kQueue = 128;  // connections that wait to be accepted
constexpr std::chrono::seconds kLockTime{2};
constexpr int kLockRetryMs = 10;

ExitError Refusal(const std::string& path, const std::string& reason)
{
    return {kExitFailed, fmt::format("control socket {}: {}", path, reason)};
}

ExitError SystemRefusal(const std::string& path)
{
    return Refusal(path, strerror(errno));
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        throw Refusal(path, fmt::format("a path has 1 to {} bytes", sizeof(address.sun_path) - 1));
    }
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

}  // namespace

ControlSocket::ControlSocket(std::string path) : path_(std::move(path))
{
    const sockaddr_un address = AddressOf(path_);
    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The file gets the socket's mode, so nobody else can connect in between.
    if (!socket.valid() || fchmod(socket.get(), 0600) == -1) {
        throw SystemRefusal(path_);
    }
    const Fd lock = LockDirectory();
    RemoveLeftover();
    struct stat file {};
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 ||
        lstat(path_.c_str(), &file) == -1 || listen(socket.get(), kQueue) == -1) {
        throw SystemRefusal(path_);
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
    socket_ = std::move(socket);
}

ControlSocket::~ControlSocket()
{
    try {
        const Fd lock = LockDirectory();
        struct stat file {};
        if (lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_) {
            unlink(path_.c_str());
        }
    } catch (const ExitError& error) {
        PrintError(error.what());
    }
}

Fd ControlSocket::LockDirectory() const
{
    const size_t slash = path_.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
    Fd lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.valid()) {
        throw SystemRefusal(path_);
    }
    const Deadline deadline(kLockTime);
    while (flock(lock.get(), LOCK_EX | LOCK_NB) == -1) {
        if (deadline.Passed()) {
            throw Refusal(path_, "another process keeps its directory locked");
        }
        poll(nullptr, 0, kLockRetryMs);  // waiting in flock would have no limit
    }
    return lock;
}

void ControlSocket::RemoveLeftover() const
{
    struct stat file {};
    if (lstat(path_.c_str(), &file) == -1) {
        return;
    }
    if (!S_ISSOCK(file.st_mode)) {
        throw Refusal(path_, "exists and is no socket");
    }
    const Held held = IsHeld(path_.c_str());
    if (held != Held::kNo) {
        throw Refusal(path_, held == Held::kYes ? "another daemon listens there" : "another daemon may listen there");
    }
    if (unlink(path_.c_str()) == -1) {
        throw SystemRefusal(path_);
    }
}

}  // namespace tools
