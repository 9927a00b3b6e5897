#include "socket_takeover.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "common/exit_error.h"
#include "common/killed_tap.h"
#include "common/listeners.h"
#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr int kBacklog = 4096;

[[noreturn]] void Fail(const char* path)
{
    throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
}

struct stat SocketFile()
{
    struct stat file {};
    if (lstat(kSocketPath, &file) == -1) {
        if (errno != ENOENT && errno != ENOTDIR) {
            Fail(kSocketPath);
        }
        throw ExitError(kExitNoDaemon, fmt::format("no daemon listens at {}: {}", kSocketPath, strerror(errno)));
    }
    if (!S_ISSOCK(file.st_mode)) {
        throw ExitError(kExitFailed, fmt::format("{} is no socket", kSocketPath));
    }
    if (ListenersAt(kSocketPath).empty()) {
        throw ExitError(kExitNoDaemon, fmt::format("no daemon listens at {}", kSocketPath));
    }
    return file;
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
    TakeOver();
}

SocketTakeover::~SocketTakeover()
{
    Restore();
}

SocketTakeover::FileId SocketTakeover::IdOf(const char* path)
{
    struct stat file {};
    if (lstat(path, &file) == -1) {
        Fail(path);
    }
    return {file.st_dev, file.st_ino};
}

bool SocketTakeover::IsAt(const FileId& file, const char* path)
{
    struct stat found {};
    return lstat(path, &found) == 0 && found.st_dev == file.device && found.st_ino == file.inode;
}

void SocketTakeover::TakeOver()
{
    // First, because what a killed tap has left is the reason why nobody listens at the daemon's path.
    const std::string repair = RepairAfterKilledTap();
    if (!repair.empty()) {
        PrintError(repair);
    }
    const struct stat daemon = SocketFile();
    listener_ = ListenAt(kSavedSocketPath, kBacklog);
    try {
        ours_ = IdOf(kSavedSocketPath);
        CopyAccess(daemon, kSavedSocketPath);
        Exchange();
    } catch (...) {
        unlink(kSavedSocketPath);
        throw;
    }
    active_ = true;
}

void SocketTakeover::Exchange()
{
    if (renameat2(AT_FDCWD, kSavedSocketPath, AT_FDCWD, kSocketPath, RENAME_EXCHANGE) == -1) {
        Fail(kSocketPath);
    }
    saved_ = IdOf(kSavedSocketPath);
}

bool SocketTakeover::IsInPlace() const
{
    return IsAt(ours_, kSocketPath);
}

bool SocketTakeover::HasLostDaemon() const
{
    return IsInPlace() && IsHeld(kSavedSocketPath) == Held::kNo;
}

Fd SocketTakeover::TakeOverAgain()
{
    if (IsInPlace() || IsHeld(kSocketPath) != Held::kYes) {
        return Fd();
    }
    ReleaseSaved();
    Fd former = std::move(listener_);
    try {
        TakeOver();
    } catch (const ExitError& error) {
        listener_ = std::move(former);
        if (error.code() != kExitNoDaemon) {
            throw;
        }
        return Fd();
    }
    return former;
}

// Another socket is at the daemon's path, or none.
void SocketTakeover::ReleaseSaved()
{
    if (!std::exchange(active_, false) || !IsAt(saved_, kSavedSocketPath)) {
        return;
    }
    const bool inUse = IsHeld(kSavedSocketPath) == Held::kYes;
    if (!inUse || renameat2(AT_FDCWD, kSavedSocketPath, AT_FDCWD, kSocketPath, RENAME_NOREPLACE) == -1) {
        unlink(kSavedSocketPath);
    }
}

void SocketTakeover::Restore()
{
    if (!IsInPlace()) {
        ReleaseSaved();
    } else if (std::exchange(active_, false) && rename(kSavedSocketPath, kSocketPath) == -1) {
        PrintError(fmt::format("the socket cannot be restored: {}: {}", kSocketPath, strerror(errno)));
    }
}

}  // namespace tools
