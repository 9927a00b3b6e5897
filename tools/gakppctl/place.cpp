#include "place.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/failure.h"
#include "common/listeners.h"
#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr int kBacklog = 4096;

struct stat SocketFile()
{
    struct stat file {};
    if (lstat(kSocketPath, &file) == -1) {
        throw Failure(kExitNoDaemon, fmt::format("{}: {}", kSocketPath, strerror(errno)));
    }
    if (!S_ISSOCK(file.st_mode)) {
        throw Failure(kExitFailed, fmt::format("{} is no socket", kSocketPath));
    }
    if (ListenersAt(kSocketPath).empty()) {
        throw Failure(kExitNoDaemon, fmt::format("nobody listens at {}", kSocketPath));
    }
    return file;
}

// Comes first: a leftover is the reason why nobody listens at the daemon's path.
void RefuseLeftover()
{
    struct stat file {};
    if (lstat(kAsidePath, &file) == 0) {
        throw Failure(kExitFailed,
                      fmt::format("{} exists: another tap runs, or was killed (see gakppctl doctor)", kAsidePath));
    }
}

[[noreturn]] void Fail(const char* path)
{
    throw Failure(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
}

void CopyAccess(const struct stat& from, const char* to)
{
    const bool sameOwner = from.st_uid == geteuid() && from.st_gid == getegid();
    if ((!sameOwner && lchown(to, from.st_uid, from.st_gid) == -1) || chmod(to, from.st_mode & 07777) == -1) {
        Fail(to);
    }
}

}  // namespace

Place::Place()
{
    RefuseLeftover();
    const struct stat daemon = SocketFile();
    MakeListener();
    try {
        CopyAccess(daemon, kAsidePath);
        Exchange();
    } catch (...) {
        unlink(kAsidePath);
        throw;
    }
    held_ = true;
}

Place::~Place()
{
    GiveBack();
}

void Place::MakeListener()
{
    listener_ = ListenAt(kAsidePath, kBacklog);
    struct stat file {};
    if (lstat(kAsidePath, &file) == -1) {
        Fail(kAsidePath);
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
}

void Place::Exchange()
{
    if (renameat2(AT_FDCWD, kAsidePath, AT_FDCWD, kSocketPath, RENAME_EXCHANGE) == -1) {
        Fail(kSocketPath);
    }
}

bool Place::IsOurs() const
{
    struct stat file {};
    return lstat(kSocketPath, &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
}

void Place::GiveBack()
{
    if (!held_) {
        return;
    }
    held_ = false;
    if (!IsOurs()) {
        unlink(kAsidePath);
    } else if (rename(kAsidePath, kSocketPath) == -1) {
        Complain(fmt::format("the socket cannot be put back: {}: {}", kSocketPath, strerror(errno)));
    }
}

}  // namespace tools
