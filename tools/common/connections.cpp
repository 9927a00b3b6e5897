#include "connections.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <unordered_map>

#include "exit_error.h"
#include "listeners.h"
#include "ppc_socket.h"
#include "socket_diag.h"

namespace tools {
namespace {

// What is at a path: not known when we may not look.
struct FileAt {
    explicit FileAt(const char* path) : isThere(lstat(path, &status) == 0), isKnown(isThere || errno != EACCES) {}

    // The kernel numbers files as stat does, but for the device, which some file systems make up for everything except
    // directories.
    bool Is(uint32_t inode) const { return isThere && inode == static_cast<uint32_t>(status.st_ino); }

    struct stat status {};
    bool isThere;
    bool isKnown;
};

struct Files {
    FileAt directory{kSocketDir};
    FileAt home{kHomeDir};
    FileAt socket{kSocketPath};
    FileAt saved{kSavedSocketPath};

    // The file system in which the daemon's path lies, also when its directory has been removed.
    bool MayHold(dev_t device) const
    {
        const FileAt& nearest = directory.isThere || !directory.isKnown ? directory : home;
        return !nearest.isKnown || (nearest.isThere && nearest.status.st_dev == device);
    }
};

// The sockets that share one file: a listener and those that were accepted from it. Never both missing.
struct Family {
    uint32_t inode = 0;
    bool isTap = false;
    const UnixSocket* listener = nullptr;
    std::vector<const UnixSocket*> accepted;
};

// A tap's socket is bound to kSavedSocketPath, wherever its file is now.
bool MayBeOurs(const UnixSocket& socket, const Files& files)
{
    return (socket.path == kSocketPath || socket.path == kSavedSocketPath) && files.MayHold(socket.device);
}

// What the kernel and /proc have told.
struct Seen {
    std::vector<UnixSocket> sockets;
    std::unordered_map<uint32_t, size_t> indexes;                 // of the sockets by their number
    std::unordered_map<uint32_t, std::vector<uint32_t>> pending;  // the clients in the queue of a listener
    SocketHolders holders;

    // A socket that was not accepted yet is missing, and so is one of a network namespace that we may not look into.
    const UnixSocket* Find(uint32_t number) const
    {
        const auto found = indexes.find(number);
        return found == indexes.end() ? nullptr : &sockets[found->second];
    }
};

// Whether the kernel has answered for this network namespace.
bool AddSockets(const Fd& diag, const Files& files, Seen& seen)
{
    const auto sockets = ListeningAndConnectedSockets(diag);
    if (!sockets.has_value()) {
        return false;
    }
    for (const UnixSocket& socket : *sockets) {
        seen.indexes[socket.number] = seen.sockets.size();
        seen.sockets.push_back(socket);
        if (socket.listens && socket.waiting > 0 && MayBeOurs(socket, files)) {
            const std::vector<uint32_t> unknown(socket.waiting);
            seen.pending[socket.number] = PendingClients(diag, socket.number).value_or(unknown);
        }
    }
    return true;
}

Seen LookAround(const Files& files)
{
    Seen seen;
    if (!AddSockets(OpenSocketDiag(), files, seen)) {
        throw ExitError(kExitFailed,
                        fmt::format("the kernel does not tell who is connected (unix_diag): {}", strerror(errno)));
    }
    seen.holders = FindSocketHolders();
    for (const Fd& network : seen.holders.otherNetworks) {
        seen.holders.complete = AddSockets(OpenSocketDiagIn(network), files, seen) && seen.holders.complete;
    }
    return seen;
}

std::vector<Family> FamiliesOf(const Seen& seen, const Files& files)
{
    std::map<std::pair<dev_t, uint32_t>, Family> families;
    for (const UnixSocket& socket : seen.sockets) {
        if (!MayBeOurs(socket, files)) {
            continue;
        }
        Family& family = families[{socket.device, socket.inode}];
        family.inode = socket.inode;
        family.isTap = socket.path == kSavedSocketPath;
        if (socket.listens) {
            family.listener = &socket;
        } else {
            family.accepted.push_back(&socket);
        }
    }
    std::vector<Family> found;
    found.reserve(families.size());
    for (const auto& [file, family] : families) {
        found.push_back(family);
    }
    return found;
}

// What the peer has sent and this end did not read. Where only the peer can be seen, its memory tells whether there is
// anything, not how much.
std::optional<uint32_t> Unread(const UnixSocket* end, const UnixSocket* peer)
{
    if (end != nullptr) {
        return end->waiting;
    }
    return peer != nullptr && peer->sendMemory == 0 ? std::optional<uint32_t>(0) : std::nullopt;
}

ConnectionEnd EndOf(uint32_t number, uint32_t peer, const Seen& seen)
{
    const UnixSocket* socket = seen.Find(number);
    return {number, Unread(socket, seen.Find(peer)), socket != nullptr ? socket->user : std::nullopt,
            seen.holders.Of(number)};
}

Connection ConnectionOf(ConnectionState state, uint32_t daemon, uint32_t worker, const Seen& seen)
{
    return {state, EndOf(daemon, worker, seen), EndOf(worker, daemon, seen)};
}

std::vector<Connection> ConnectionsOf(const Family& family, const Seen& seen)
{
    std::vector<Connection> connections;
    const auto queue = family.listener != nullptr ? seen.pending.find(family.listener->number) : seen.pending.end();
    if (queue != seen.pending.end()) {
        for (const uint32_t client : queue->second) {
            connections.push_back(ConnectionOf(ConnectionState::kPending, 0, client, seen));
        }
    }
    for (const UnixSocket* socket : family.accepted) {
        const ConnectionState state = socket->peer == 0 ? ConnectionState::kEnded : ConnectionState::kEstablished;
        connections.push_back(ConnectionOf(state, socket->number, socket->peer, seen));
    }
    return connections;
}

Reach ReachOf(const Family& family, const Files& files, bool isTapInPlace)
{
    if (!files.socket.isKnown) {
        return Reach::kUnknown;
    }
    if (family.listener == nullptr) {
        return Reach::kNone;
    }
    if (files.socket.Is(family.inode)) {
        return Reach::kDirect;
    }
    return isTapInPlace && files.saved.Is(family.inode) ? Reach::kThroughTap : Reach::kNone;
}

ServerSocket ServerOf(const Family& family, Reach reach, const Seen& seen)
{
    const UnixSocket& socket = family.listener != nullptr ? *family.listener : *family.accepted.front();
    return {family.isTap,
            reach,
            family.listener != nullptr ? socket.number : 0,
            socket.user,
            seen.holders.Of(socket.number),
            ConnectionsOf(family, seen)};
}

// What workers find at the path is ours, whoever it is. Of the rest that is told by the processes.
bool IsOfOtherFiles(const ServerSocket& server)
{
    return (server.reach == Reach::kNone || server.reach == Reach::kUnknown) && !server.processes.empty() &&
           std::all_of(server.processes.begin(), server.processes.end(),
                       [](const SocketHolder& holder) { return SeesOtherFiles(holder.pid); });
}

}  // namespace

ServerSockets FindServerSockets()
{
    const Files files;
    const Seen seen = LookAround(files);
    const std::vector<Family> families = FamiliesOf(seen, files);
    const bool isTapInPlace = std::any_of(families.begin(), families.end(), [&files](const Family& family) {
        return family.isTap && family.listener != nullptr && files.socket.Is(family.inode);
    });
    ServerSockets found;
    for (const Family& family : families) {
        const ServerSocket server = ServerOf(family, ReachOf(family, files, isTapInPlace), seen);
        if (!IsOfOtherFiles(server)) {
            found.servers.push_back(server);
        }
    }
    std::stable_sort(found.servers.begin(), found.servers.end(),
                     [](const ServerSocket& left, const ServerSocket& right) { return left.reach < right.reach; });
    found.complete = seen.holders.complete;
    return found;
}

}  // namespace tools
