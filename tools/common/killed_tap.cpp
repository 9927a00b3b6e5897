#include "killed_tap.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "exit_error.h"
#include "listeners.h"
#include "ppc_socket.h"
#include "socket_diag.h"

namespace tools {
namespace {

bool Exists(const char* path)
{
    struct stat file {};
    return lstat(path, &file) == 0;
}

// Unlike rename(2) it never replaces a file.
bool Move(const std::string& from, const std::string& to)
{
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

// A tap's socket was bound to kSavedSocketPath, wherever its file is now.
bool IsTapInPlace()
{
    struct stat file {};
    if (IsHeld(kSocketPath) == Held::kNo || lstat(kSocketPath, &file) == -1) {
        return false;
    }
    const auto sockets = ListeningSockets();
    if (!sockets.has_value()) {
        return !ListenersAt(kSavedSocketPath).empty();
    }
    return std::any_of(sockets->begin(), sockets->end(), [&file](const UnixSocket& socket) {
        return socket.path == kSavedSocketPath && socket.device == file.st_dev &&
               socket.inode == static_cast<uint32_t>(file.st_ino);
    });
}

// The file is moved aside before it is removed: what is removed is then what has been looked at. Whether it was not in
// use; errno is EBUSY if it was, EACCES if we may not know.
bool RemoveUnlessHeld(const char* path)
{
    const std::string aside = fmt::format("{}.{}", path, getpid());
    const Held before = IsHeld(path);
    if (before != Held::kNo) {
        errno = before == Held::kYes ? EBUSY : EACCES;
        return false;
    }
    if (!Move(path, aside)) {
        return errno == ENOENT;
    }
    if (IsHeld(aside.c_str()) == Held::kNo) {
        return unlink(aside.c_str()) == 0;
    }
    Move(aside, path);
    errno = EBUSY;
    return false;
}

[[noreturn]] void Fail(const char* path)
{
    throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
}

}  // namespace

bool RemoveSavedSocket()
{
    return Exists(kSavedSocketPath) && !IsTapInPlace() && RemoveUnlessHeld(kSavedSocketPath);
}

std::string RepairAfterKilledTap()
{
    if (!Exists(kSavedSocketPath)) {
        return "";
    }
    if (IsTapInPlace()) {
        throw ExitError(kExitFailed, "another tap is in place");
    }
    if (RemoveUnlessHeld(kSavedSocketPath)) {
        return fmt::format("removed {}, which a killed tap has left", kSavedSocketPath);
    }
    if (errno != EBUSY) {
        Fail(kSavedSocketPath);
    }
    if (RemoveUnlessHeld(kSocketPath) && Move(kSavedSocketPath, kSocketPath)) {
        return fmt::format("restored {}, which a killed tap has left at {}", kSocketPath, kSavedSocketPath);
    }
    if (errno != EBUSY && errno != EEXIST) {
        Fail(kSocketPath);
    }
    throw ExitError(kExitFailed,
                    fmt::format("{} and {} are both in use: another tap starts or ends, or two daemons run "
                                "(see gakppctl doctor)",
                                kSavedSocketPath, kSocketPath));
}

}  // namespace tools
