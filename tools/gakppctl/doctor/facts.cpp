#include "facts.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/listeners.h"
#include "common/ppc_socket.h"
#include "common/socket_diag.h"

namespace tools {
namespace {

using Sockets = std::vector<UnixSocket>;

// A socket that was bound to the daemon's path, with the processes that have it open. None: we may not see them.
struct BoundSocket {
    UnixSocket socket;
    std::vector<pid_t> processes;
};

// The kernel numbers files as stat does, but for the device, which some file systems make up for everything except
// directories.
bool IsBehind(const UnixSocket& socket, const FileInfo& file, const FileInfo& directory)
{
    return file.IsThere() && directory.IsThere() && socket.device == directory.status.st_dev &&
           socket.inode == static_cast<uint32_t>(file.status.st_ino);
}

const UnixSocket* SocketBehind(const FileInfo& file, const Facts& facts, const Sockets& sockets)
{
    const auto found = std::find_if(sockets.begin(), sockets.end(),
                                    [&](const UnixSocket& socket) { return IsBehind(socket, file, facts.directory); });
    return found == sockets.end() ? nullptr : &*found;
}

// A process may hold a socket and refuse connections: before it calls listen, or after a shutdown.
Held HeldByDaemon(const Facts& facts)
{
    return facts.attempt.connect == ECONNREFUSED ? Held::kNo : IsHeld(kSocketPath);
}

// What we may not try, the kernel's table may still tell.
Held OrListed(Held held, const UnixSocket* listed)
{
    return held == Held::kUnknown && listed != nullptr ? Held::kYes : held;
}

void FindHolders(Facts& facts, const Sockets& sockets)
{
    const UnixSocket* socket = SocketBehind(facts.socket, facts, sockets);
    const UnixSocket* saved = SocketBehind(facts.saved, facts, sockets);
    facts.socketHeld = OrListed(HeldByDaemon(facts), socket);
    facts.savedHeld = OrListed(IsHeld(kSavedSocketPath), saved);
    if (facts.IsConnected()) {
        facts.isTapped = facts.attempt.listener->boundAt == kSavedSocketPath;
    } else {
        facts.isTapped = socket != nullptr && socket->path == kSavedSocketPath;
    }
}

// The file that leads to the daemon's socket.
const FileInfo& DaemonFile(const Facts& facts)
{
    return facts.isTapped || facts.HasStrandedSocket() ? facts.saved : facts.socket;
}

std::optional<Identity> DaemonUser(const Facts& facts)
{
    if (facts.IsConnected() && !facts.isTapped) {
        return facts.attempt.listener->user;
    }
    const FileInfo& file = DaemonFile(facts);
    if (!file.IsSocket()) {
        return std::nullopt;
    }
    Identity user = IdentityAtLogin(file.status.st_uid, file.status.st_gid);
    user.groups.push_back(file.status.st_gid);  // of which it is a member when it runs, as a unit's Group= may say
    return user;
}

// Those of other mount namespaces and of other file systems are left out, as far as that can be told.
std::vector<BoundSocket> SocketsBoundToDaemonPath(const Sockets& sockets, const FileInfo& directory)
{
    std::vector<BoundSocket> bound;
    for (const UnixSocket& socket : sockets) {
        if (socket.path != kSocketPath) {
            continue;
        }
        std::vector<pid_t> processes = ProcessesWithSocket(socket.number);
        const bool isHidden = processes.empty() && directory.IsThere() && socket.device == directory.status.st_dev;
        processes.erase(std::remove_if(processes.begin(), processes.end(), SeesOtherFiles), processes.end());
        if (isHidden || !processes.empty()) {
            bound.push_back({socket, processes});
        }
    }
    return bound;
}

// Takes the socket that serves out of `bound`.
std::optional<BoundSocket> TakeServing(const Facts& facts, std::vector<BoundSocket>& bound)
{
    const auto serving = std::find_if(bound.begin(), bound.end(), [&facts](const BoundSocket& one) {
        return IsBehind(one.socket, DaemonFile(facts), facts.directory);
    });
    if (serving == bound.end()) {
        return std::nullopt;
    }
    BoundSocket taken = *serving;
    bound.erase(serving);
    return taken;
}

// The one that was reached, if it still has the socket: it may have called listen for another.
pid_t ProcessOf(const BoundSocket& serving, pid_t reached)
{
    const auto& processes = serving.processes;
    const bool isReached = std::find(processes.begin(), processes.end(), reached) != processes.end();
    return processes.empty() || isReached ? reached : processes.front();
}

void FindProcesses(Facts& facts, const Sockets& sockets)
{
    std::vector<BoundSocket> bound =
        SocketsBoundToDaemonPath(sockets, facts.directory.IsThere() ? facts.directory : facts.parent);
    const std::optional<BoundSocket> serving = TakeServing(facts, bound);
    pid_t pid = facts.IsConnected() && !facts.isTapped ? facts.attempt.listener->pid : 0;
    if (serving.has_value()) {
        facts.waiting = serving->socket.waiting;
        facts.daemonIsServing = !serving->processes.empty();
        pid = ProcessOf(*serving, pid);
    }
    facts.daemon = DescribeProcess(pid);
    const bool knowsServing = serving.has_value() || (facts.socketHeld == Held::kNo && !facts.HasStrandedSocket());
    if (!knowsServing) {
        return;  // one of the rest may be the daemon
    }
    for (const BoundSocket& other : bound) {
        facts.unreachable.push_back(DescribeProcess(other.processes.empty() ? 0 : other.processes.front()));
    }
}

}  // namespace

Facts GatherFacts(const Identity& user, bool isCaller)
{
    Facts facts;
    facts.user = user;
    facts.callerIsRoot = geteuid() == 0;
    facts.attempt = TryToConnect(user, isCaller);
    facts.parent = LookAt(kHomeDir);
    facts.directory = LookAt(kSocketDir);
    facts.socket = LookAt(kSocketPath);
    facts.saved = LookAt(kSavedSocketPath);
    facts.fileSystem = FileSystemOf(facts.directory.IsThere() ? facts.directory : facts.parent);
    const Sockets sockets = ListeningSockets().value_or(Sockets{});
    FindHolders(facts, sockets);
    facts.daemonUser = DaemonUser(facts);
    FindProcesses(facts, sockets);
    return facts;
}

}  // namespace tools
