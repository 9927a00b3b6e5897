#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/ppc_socket.h"
#include "rules.h"

namespace tools {
namespace {

constexpr mode_t kWriteAndSearch = 3;
constexpr uid_t kRoot = 0;
constexpr char kMakeItForDaemon[] =
    "root makes it for the user and group of the daemon: install -d -m 0350 -o USER -g GROUP "
    "/home/KrovaUser/qel_ppc";

// Puts what is in the way under another name, so that nothing is lost. Empty when no name is free.
std::string MoveAway(const std::string& path)
{
    for (int i = 1; i < 10; ++i) {
        const std::string target = fmt::format("{}.moved{}", path, i);
        if (faccessat(AT_FDCWD, target.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == -1 && errno == ENOENT) {
            return fmt::format("mv -T {} {}", path, target);
        }
    }
    return "";
}

bool HasRoom(const Facts& facts)
{
    return facts.fileSystem.has_value() && !facts.fileSystem->isReadOnlyHere && facts.fileSystem->hasInodes;
}

// As the first process of the parent's owner would make it. Who else is to run the daemon cannot be known here.
std::string MakeDirectoryCommand(const Facts& facts)
{
    const struct stat& parent = facts.parent.status;
    const bool isForDaemon = parent.st_uid != kRoot || facts.user.uid == kRoot;
    if (!isForDaemon || !HasRoom(facts)) {
        return "";
    }
    const bool isInherited = (parent.st_mode & S_ISGID) != 0;
    const gid_t group = isInherited ? parent.st_gid : IdentityAtLogin(parent.st_uid, parent.st_gid).gid;
    return fmt::format("install -d -m 0350 -o {} -g {} {}", UserArgument(parent.st_uid), GroupArgument(group),
                       kSocketDir);
}

// ---- The directory ----

void JudgeMissingDirectory(const Facts& facts, Diagnosis& diagnosis)
{
    if (facts.directory.isLink) {
        diagnosis.Add(Severity::kFault, "directory",
                      fmt::format("{} is a symbolic link that leads to nothing", kSocketDir), "",
                      "make what it leads to, or remove it so that the directory can be made");
    } else if (facts.attempt.makeDirectory == 0) {
        diagnosis.Add(Severity::kNote, "directory",
                      fmt::format("{} is not there yet: the first process that calls ppcInit makes it", kSocketDir));
    } else {
        diagnosis.Add(Severity::kFault, "directory",
                      fmt::format("{} is not there, and {} may not make it: {}", kSocketDir, UserText(facts.user.uid),
                                  strerror(facts.attempt.makeDirectory)),
                      MakeDirectoryCommand(facts), kMakeItForDaemon);
    }
}

void JudgeOtherThanDirectory(const Facts& facts, Diagnosis& diagnosis)
{
    const std::string move = MoveAway(kSocketDir);
    const std::string make = MakeDirectoryCommand(facts);
    const bool isKnown = !facts.directory.isLink && !move.empty() && !make.empty();
    diagnosis.Add(Severity::kFault, "directory",
                  fmt::format("{} is no directory, although ppcInit takes it for one", kSocketDir),
                  isKnown ? fmt::format("{} && {}", move, make) : "",
                  isKnown ? "" : fmt::format("move it away; {}", kMakeItForDaemon));
}

// How the directory lets the daemon's user write to it.
enum class Right { kNone, kOwn, kEverybodys };

Right RightToListen(const FileInfo& directory, const Identity& user)
{
    if ((PermissionsOf(user, directory.status) & kWriteAndSearch) != kWriteAndSearch) {
        return Right::kNone;
    }
    const bool own = user.uid == kRoot || user.uid == directory.status.st_uid || user.IsIn(directory.status.st_gid);
    return own ? Right::kOwn : Right::kEverybodys;
}

// A change for the daemon's user that takes nothing from anybody: to the owner's bits, or from root, who needs no bits.
// A directory goes only to the owner of its parent, who could replace it anyway.
std::string LetListenCommand(const Facts& facts)
{
    const FileInfo& directory = facts.directory;
    const uid_t user = facts.daemonUser->uid;
    if (directory.status.st_uid == user) {
        return fmt::format("chmod u+wx {}", kSocketDir);
    }
    const mode_t owners = directory.status.st_mode >> 6;
    const bool suffices = directory.status.st_uid == kRoot && (owners & kWriteAndSearch) == kWriteAndSearch;
    return suffices && facts.parent.status.st_uid == user ? fmt::format("chown {} {}", UserArgument(user), kSocketDir)
                                                          : "";
}

void JudgeNextStart(const Facts& facts, Diagnosis& diagnosis)
{
    if (!facts.daemonUser.has_value() || facts.directory.hasAcl ||
        RightToListen(facts.directory, *facts.daemonUser) != Right::kNone) {
        return;
    }
    const std::string user = UserText(facts.daemonUser->uid);
    const std::string text = fmt::format("{}, whose daemon was the last to listen, may not write to {} ({})", user,
                                         kSocketDir, Describe(facts.directory));
    if (!facts.DaemonListens()) {
        diagnosis.Add(Severity::kNote, "directory", text);
        return;
    }
    diagnosis.Add(Severity::kFault, "directory", text + ": the daemon cannot be started anew", LetListenCommand(facts),
                  "make sure that the process which listens is the daemon");
}

void JudgeOpenDirectory(const Facts& facts, Diagnosis& diagnosis)
{
    if ((facts.directory.Mode() & S_IWOTH) == 0) {
        return;
    }
    const bool keepsDaemon =
        facts.daemonUser.has_value() && RightToListen(facts.directory, *facts.daemonUser) == Right::kOwn;
    const std::string who =
        facts.IsConnected() ? fmt::format("; at present {} does", UserText(facts.attempt.listener->user.uid)) : "";
    diagnosis.Add(
        Severity::kFault, "directory mode",
        fmt::format("{} ({}): anybody may listen in the daemon's place{}", kSocketDir, Describe(facts.directory), who),
        keepsDaemon && !facts.directory.hasAcl ? fmt::format("chmod o-w {}", kSocketDir) : "",
        "make sure that the process which listens is the daemon");
}

void JudgeFileSystem(const Facts& facts, Diagnosis& diagnosis)
{
    if (!facts.fileSystem.has_value()) {
        return;
    }
    if (facts.fileSystem->isReadOnlyHere && !facts.fileSystem->isReadOnly) {
        diagnosis.Add(
            Severity::kNote, "file system",
            fmt::format("{} is mounted read-only here: a daemon can listen there only from elsewhere, as from "
                        "outside a container",
                        kSocketDir));
    } else if (facts.fileSystem->isReadOnly) {
        diagnosis.Add(Severity::kFault, "file system",
                      fmt::format("the file system of {} is read-only: no daemon can make its socket", kSocketDir), "",
                      "look into the system's log for the reason before it is made writable");
    } else if (!facts.fileSystem->hasInodes && facts.socket.IsAbsent()) {
        diagnosis.Add(Severity::kFault, "file system",
                      fmt::format("the file system of {} has no room for another file: no daemon can make its socket",
                                  kSocketDir),
                      "", "remove files that are not needed from it");
    } else if (!facts.fileSystem->hasBlocks) {
        diagnosis.Add(Severity::kNote, "file system",
                      fmt::format("the file system of {} is full: making a socket may fail", kSocketDir));
    }
}

}  // namespace

void JudgeParent(const Facts& facts, Diagnosis& diagnosis)
{
    const FileInfo& parent = facts.parent;
    const bool isRoot = facts.user.uid == kRoot;
    const std::string make = fmt::format("install -d -m 0755 {}", kHomeDir);
    const std::string advice =
        "for a daemon of another user than root: install -d -m 0755 -o USER " + std::string(kHomeDir);
    if (parent.IsAbsent()) {
        diagnosis.Add(Severity::kFault, "parent", fmt::format("{} is not there; no program makes it", kHomeDir),
                      isRoot && !parent.isLink ? make : "", advice);
    } else if (parent.IsThere() && !parent.IsDirectory()) {
        const std::string move = MoveAway(kHomeDir);
        diagnosis.Add(Severity::kFault, "parent", fmt::format("{} is no directory", kHomeDir),
                      isRoot && !parent.isLink && !move.empty() ? fmt::format("{} && {}", move, make) : "",
                      "move it away; " + advice);
    } else if (parent.IsThere() && (parent.Mode() & (S_IWOTH | S_ISVTX)) == S_IWOTH) {
        diagnosis.Add(Severity::kFault, "parent",
                      fmt::format("{} ({}): anybody may replace the socket directory", kHomeDir, Describe(parent)),
                      facts.directory.IsDirectory() && !parent.hasAcl ? fmt::format("chmod +t {}", kHomeDir) : "",
                      "take the permission to write from those who do not need it");
    }
}

void JudgeDirectory(const Facts& facts, Diagnosis& diagnosis)
{
    if (!facts.parent.IsDirectory()) {
        return;
    }
    if (facts.directory.IsAbsent()) {
        JudgeMissingDirectory(facts, diagnosis);
    } else if (facts.directory.IsThere() && !facts.directory.IsDirectory()) {
        JudgeOtherThanDirectory(facts, diagnosis);
    } else if (facts.directory.IsThere()) {
        JudgeNextStart(facts, diagnosis);
        JudgeOpenDirectory(facts, diagnosis);
    }
    JudgeFileSystem(facts, diagnosis);
}

void JudgeSocket(const Facts& facts, Diagnosis& diagnosis)
{
    const FileInfo& socket = facts.socket;
    if (!socket.IsThere() || socket.IsSocket()) {
        return;
    }
    if (!socket.IsDirectory()) {
        diagnosis.Add(Severity::kNote, "socket",
                      fmt::format("{} is no socket; the next daemon removes it", kSocketPath));
        return;
    }
    const std::string move = socket.isLink ? "" : MoveAway(kSocketPath);
    diagnosis.Add(Severity::kFault, "socket", fmt::format("{} is a directory: no daemon can listen there", kSocketPath),
                  move, move.empty() ? "move it away" : "");
}

void JudgeTap(const Facts& facts, Diagnosis& diagnosis)
{
    if (facts.HasStrandedSocket()) {
        const bool mayMove = facts.socket.IsAbsent() || (facts.socket.IsThere() && !facts.socket.IsDirectory());
        diagnosis.Add(
            Severity::kFault, "tap",
            fmt::format("a tap was killed: the daemon listens at {} still, where no worker looks", kSavedSocketPath),
            mayMove ? fmt::format("mv -fT {} {}", kSavedSocketPath, kSocketPath) : "");
    } else if (facts.isTapped) {
        const bool isAlone = facts.savedHeld == Held::kNo;
        diagnosis.Add(Severity::kNote, "tap",
                      isAlone ? "a tap stands in the place of a daemon that has ended"
                              : "a tap passes everything on between the workers and the daemon");
    } else if (facts.saved.IsThere()) {
        diagnosis.Add(Severity::kNote, "tap",
                      fmt::format("{} is there, where a tap keeps the daemon's socket, but no tap is known to be in "
                                  "place; the next one removes it if nobody listens there",
                                  kSavedSocketPath));
    }
}

}  // namespace tools
