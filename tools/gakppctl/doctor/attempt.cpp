#include "attempt.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/exit_error.h"
#include "common/fd.h"
#include "common/ppc_socket.h"

namespace tools {
namespace {

// An accepting daemon empties its queue in far less.
constexpr std::chrono::seconds kQueueTime{1};
constexpr int kAskAgainMs = 5;

// What a child process finds out; plain numbers, so that they fit through a pipe.
struct Results {
    int enterHome, enterParent, enterDirectory, writeSocket, makeDirectory, connect;
};

// A queue may be full for a moment; nothing tells when it has room.
int ConnectToDaemonSocket(const Fd& socket)
{
    const Deadline deadline(kQueueTime);
    int error = ConnectTo(socket, kSocketPath);
    while (error == EAGAIN && !deadline.Passed()) {
        poll(nullptr, 0, kAskAgainMs);
        error = ConnectTo(socket, kSocketPath);
    }
    return error;
}

int Access(const char* path, int mode)
{
    return access(path, mode) == 0 ? 0 : errno;
}

Results TryHere(const Fd& socket)
{
    return {Access("/home", X_OK),     Access(kHomeDir, X_OK),        Access(kSocketDir, X_OK),
            Access(kSocketPath, W_OK), Access(kHomeDir, W_OK | X_OK), ConnectToDaemonSocket(socket)};
}

[[noreturn]] void RunChild(const Identity& user, const Fd& socket, const Fd& answer)
{
    if (!Become(user)) {
        _exit(kExitFailed);
    }
    const Results results = TryHere(socket);
    const bool written = write(answer.get(), &results, sizeof(results)) == static_cast<ssize_t>(sizeof(results));
    _exit(written ? kExitOk : kExitFailed);
}

// The child connects the parent's socket, so that the parent can ask who is at its other end.
Results TryInChild(const Identity& user, const Fd& socket)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == -1) {
        throw ExitError(kExitFailed, fmt::format("pipe: {}", strerror(errno)));
    }
    const Fd question(ends[0]);
    Fd answer(ends[1]);
    const pid_t child = fork();
    if (child == -1) {
        throw ExitError(kExitFailed, fmt::format("fork: {}", strerror(errno)));
    }
    if (child == 0) {
        RunChild(user, socket, answer);
    }
    answer.Reset();
    Results results{};
    const ssize_t size = read(question.get(), &results, sizeof(results));
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
    }
    if (size != static_cast<ssize_t>(sizeof(results))) {
        throw ExitError(kExitFailed, fmt::format("this process may not become {}", UserText(user.uid)));
    }
    return results;
}

std::vector<gid_t> PeerGroups(const Fd& socket)
{
    std::vector<gid_t> groups;
    socklen_t size = 0;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERGROUPS, nullptr, &size) == -1 && errno == ERANGE) {
        groups.resize(size / sizeof(gid_t));
        if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == -1) {
            groups.clear();
        }
    }
    return groups;
}

Listener ListenerOf(const Fd& socket)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1) {
        throw ExitError(kExitFailed, fmt::format("SO_PEERCRED: {}", strerror(errno)));
    }
    sockaddr_un address{};
    size = sizeof(address);
    const bool named = getpeername(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0;
    return {peer.pid, {peer.uid, peer.gid, PeerGroups(socket)}, named ? address.sun_path : ""};
}

Fd NewStreamSocket()
{
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        throw ExitError(kExitFailed, fmt::format("socket: {}", strerror(errno)));
    }
    return fd;
}

}  // namespace

Attempt TryToConnect(const Identity& user, bool isCaller)
{
    const Fd socket = NewStreamSocket();
    const Results results = isCaller ? TryHere(socket) : TryInChild(user, socket);
    Attempt attempt{results.enterHome,   results.enterParent,   results.enterDirectory,
                    results.writeSocket, results.makeDirectory, results.connect,
                    std::nullopt};
    if (attempt.connect == 0) {
        attempt.listener = ListenerOf(socket);
    }
    return attempt;
}

}  // namespace tools
