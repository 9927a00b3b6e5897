#include "file_checks.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <optional>

#include "common/ppc_socket.h"

namespace tools {
namespace {

constexpr mode_t kOwnerUse = S_IWUSR | S_IXUSR;
constexpr char kMakeDirectory[] = "call ppcInit, or: install -d -m 0350 /home/KrovaUser/qel_ppc";

std::optional<struct stat> Look(const char* path, bool follow)
{
    struct stat file {};
    const int result = follow ? stat(path, &file) : lstat(path, &file);
    return result == 0 ? std::optional<struct stat>(file) : std::nullopt;
}

mode_t Permissions(const struct stat& file)
{
    return file.st_mode & 07777;
}

bool CheckParent(Diagnosis& diagnosis)
{
    const auto parent = Look(kHomeDir, true);
    if (!parent) {
        diagnosis.Add(Severity::kFault, "parent", fmt::format("{}: {}", kHomeDir, strerror(errno)),
                      fmt::format("install -d -m 0755 {}", kHomeDir));
        return false;
    }
    if (!S_ISDIR(parent->st_mode)) {
        diagnosis.Add(Severity::kFault, "parent", fmt::format("{} is no directory", kHomeDir),
                      fmt::format("move {0} away; install -d -m 0755 {0}", kHomeDir));
        return false;
    }
    if ((parent->st_mode & S_IWOTH) != 0 && (parent->st_mode & S_ISVTX) == 0) {
        diagnosis.Add(Severity::kFault, "parent", fmt::format("anybody may replace what is in {}", kHomeDir),
                      fmt::format("chmod o-w {}", kHomeDir));
    }
    return true;
}

bool CheckDirectoryType(Diagnosis& diagnosis)
{
    const auto link = Look(kSocketDir, false);
    if (!link) {
        diagnosis.Add(Severity::kFault, "directory", fmt::format("{}: {}", kSocketDir, strerror(errno)),
                      kMakeDirectory);
        return false;
    }
    if (S_ISLNK(link->st_mode)) {
        diagnosis.Add(
            Severity::kFault, "directory link",
            fmt::format("{} is a symbolic link: whoever owns its target decides who is spoken to", kSocketDir),
            fmt::format("rm {}; {}", kSocketDir, kMakeDirectory));
    }
    const auto directory = Look(kSocketDir, true);
    if (!directory || !S_ISDIR(directory->st_mode)) {
        diagnosis.Add(Severity::kFault, "directory",
                      fmt::format("{} is no directory, although ppcInit takes it for one", kSocketDir),
                      fmt::format("rm {}; {}", kSocketDir, kMakeDirectory));
        return false;
    }
    return true;
}

void CheckDirectoryOwner(Diagnosis& diagnosis, const struct stat& directory, const DaemonProcess& daemon)
{
    const auto parent = Look(kHomeDir, true);
    bool trusted = directory.st_uid == 0 || (parent && directory.st_uid == parent->st_uid);
    trusted = trusted || (daemon.pid != 0 && directory.st_uid == daemon.uid);
    if (!trusted) {
        diagnosis.Add(Severity::kFault, "directory owner",
                      fmt::format("{} belongs to uid {}, who is neither the daemon's user nor the owner of {}",
                                  kSocketDir, directory.st_uid, kHomeDir),
                      fmt::format("chown {} {}", daemon.pid != 0 ? daemon.uid : parent->st_uid, kSocketDir));
    }
}

void CheckDirectoryMode(Diagnosis& diagnosis, const struct stat& directory)
{
    const mode_t mode = Permissions(directory);
    if ((mode & kOwnerUse) != kOwnerUse) {
        diagnosis.Add(Severity::kFault, "directory mode",
                      fmt::format("mode {:04o} keeps the owner out of {}: a umask took the bits away, or a chmod", mode,
                                  kSocketDir),
                      fmt::format("chmod 0350 {}; start the daemon with umask 0022", kSocketDir));
    } else if ((mode & S_IXGRP) == 0) {
        diagnosis.Add(Severity::kFault, "directory umask",
                      fmt::format("mode {:04o} keeps the group's workers out of {}: the first process had a umask that "
                                  "takes the group's bits away",
                                  mode, kSocketDir),
                      fmt::format("chmod 0350 {}; start the first process with umask 0022", kSocketDir));
    }
    if ((mode & S_IWOTH) != 0) {
        diagnosis.Add(Severity::kFault, "directory mode",
                      fmt::format("mode {:04o}: anybody may put a socket of his own into {}", mode, kSocketDir),
                      fmt::format("chmod 0350 {}", kSocketDir));
    }
}

void CheckSocketAccess(Diagnosis& diagnosis, const struct stat& file, const DaemonProcess& daemon)
{
    const mode_t mode = Permissions(file);
    if ((mode & S_IWUSR) == 0) {
        diagnosis.Add(Severity::kFault, "socket umask",
                      fmt::format("mode {:04o}: not even the owner's workers may connect to {} (the daemon's umask was "
                                  "too strict)",
                                  mode, kSocketPath),
                      fmt::format("chmod u+w {}; start the daemon with umask 0022 or 0007", kSocketPath));
    } else if ((mode & S_IWGRP) == 0) {
        diagnosis.Add(Severity::kNote, "socket umask",
                      fmt::format("mode {:04o}: only uid {} and root may connect (umask of the daemon: {:04o})", mode,
                                  file.st_uid, daemon.umask),
                      "for workers of other users of the group: start the daemon with umask 0007");
    }
    if (daemon.pid != 0 && file.st_uid != daemon.uid) {
        diagnosis.Add(Severity::kFault, "socket owner",
                      fmt::format("{} belongs to uid {}, the daemon {} runs as uid {}", kSocketPath, file.st_uid,
                                  daemon.pid, daemon.uid),
                      fmt::format("chown {} {}", daemon.uid, kSocketPath));
    }
}

// Whether somebody accepts connections there.
bool IsAlive(const char* path)
{
    return TryConnect(path).valid() || errno == EAGAIN;
}

}  // namespace

bool CheckDirectory(Diagnosis& diagnosis, const DaemonProcess& daemon)
{
    if (!CheckParent(diagnosis) || !CheckDirectoryType(diagnosis)) {
        return false;
    }
    const auto directory = Look(kSocketDir, true);
    if (!directory) {
        return false;
    }
    CheckDirectoryOwner(diagnosis, *directory, daemon);
    CheckDirectoryMode(diagnosis, *directory);
    return true;
}

void CheckSocket(Diagnosis& diagnosis, const DaemonProcess& daemon, bool listens)
{
    const auto file = Look(kSocketPath, false);
    if (!file) {
        if (listens) {
            diagnosis.Add(Severity::kFault, "socket",
                          fmt::format("a daemon listens, but {} cannot be found: {}", kSocketPath, strerror(errno)),
                          "restart the daemon");
        }
    } else if (!S_ISSOCK(file->st_mode)) {
        diagnosis.Add(Severity::kFault, S_ISLNK(file->st_mode) ? "socket link" : "socket",
                      fmt::format("{} is no socket", kSocketPath),
                      fmt::format("rm -r {}; restart the daemon", kSocketPath));
    } else if (!listens) {
        diagnosis.Add(Severity::kFault, "stale socket",
                      fmt::format("nobody listens at {}: its daemon has ended", kSocketPath),
                      fmt::format("start the daemon, which replaces it, or: rm {}", kSocketPath));
    } else {
        CheckSocketAccess(diagnosis, *file, daemon);
    }
}

bool CheckTapLeftover(Diagnosis& diagnosis)
{
    if (!Look(kSavedSocketPath, false)) {
        return false;
    }
    if (!ListenersAt(kSavedSocketPath).empty()) {
        diagnosis.Add(Severity::kNote, "tap", "a tap holds the place of the daemon's socket");
        return true;
    }
    const std::string repair = IsAlive(kSavedSocketPath) ? fmt::format("mv -fT {} {}", kSavedSocketPath, kSocketPath)
                                                         : fmt::format("rm {}", kSavedSocketPath);
    diagnosis.Add(Severity::kFault, "tap leftover",
                  fmt::format("a tap was killed and could not tidy up: {} is left", kSavedSocketPath), repair);
    return true;
}

}  // namespace tools
