#include "socket_takeover.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/exit_error.h"
#include "common/listeners.h"
#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr int kBacklog = 4096;

struct stat SocketFile()
{
    struct stat file {};
    if (lstat(kSocketPath, &file) == -1) {
        throw ExitError(kExitNoDaemon, fmt::format("{}: {}", kSocketPath, strerror(errno)));
    }
    if (!S_ISSOCK(file.st_mode)) {
        throw ExitError(kExitFailed, fmt::format("{} is no socket", kSocketPath));
    }
    if (ListenersAt(kSocketPath).empty()) {
        throw ExitError(kExitNoDaemon, fmt::format("nobody listens at {}", kSocketPath));
    }
    return file;
}

// Comes first: a leftover is the reason why nobody listens at the daemon's path.
void RefuseLeftover()
{
    struct stat file {};
    if (lstat(kSavedSocketPath, &file) == 0) {
        throw ExitError(kExitFailed, fmt::format("{} exists: another tap runs, or was killed (see gakppctl doctor)",
                                                 kSavedSocketPath));
    }
}

[[noreturn]] void Fail(const char* path)
{
    throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
}

void CopyAccess(const struct stat& from, const char* to)
{
    const bool sameOwner = from.st_uid == geteuid() && from.st_gid == getegid();
    if ((!sameOwner && lchown(to, from.st_uid, from.st_gid) == -1) || chmod(to, from.st_mode & 07777) == -1) {
        Fail(to);
    }
}

}  // namespace

SocketTakeover::SocketTakeover()
{
    RefuseLeftover();
    const struct stat daemon = SocketFile();
    MakeListener();
    try {
        CopyAccess(daemon, kSavedSocketPath);
        Exchange();
    } catch (...) {
        unlink(kSavedSocketPath);
        throw;
    }
    active_ = true;
}

SocketTakeover::~SocketTakeover()
{
    Restore();
}

void SocketTakeover::MakeListener()
{
    listener_ = ListenAt(kSavedSocketPath, kBacklog);
    struct stat file {};
    if (lstat(kSavedSocketPath, &file) == -1) {
        Fail(kSavedSocketPath);
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
}

void SocketTakeover::Exchange()
{
    if (renameat2(AT_FDCWD, kSavedSocketPath, AT_FDCWD, kSocketPath, RENAME_EXCHANGE) == -1) {
        Fail(kSocketPath);
    }
}

bool SocketTakeover::IsInPlace() const
{
    struct stat file {};
    return lstat(kSocketPath, &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
}

void SocketTakeover::Restore()
{
    if (!active_) {
        return;
    }
    active_ = false;
    if (!IsInPlace()) {
        unlink(kSavedSocketPath);
    } else if (rename(kSavedSocketPath, kSocketPath) == -1) {
        PrintError(fmt::format("the socket cannot be restored: {}: {}", kSocketPath, strerror(errno)));
    }
}

}  // namespace tools
