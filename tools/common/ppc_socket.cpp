#include "ppc_socket.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "exit_error.h"

namespace tools {
namespace {

constexpr int kConnectRetryMs = 1;

sockaddr_un AddressOf(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    return address;
}

Fd NewSocket(int type)
{
    return Fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool WaitFor(int fd, short events, const Deadline& deadline)
{
    pollfd wanted{fd, events, 0};
    int ready = 0;
    do {
        ready = poll(&wanted, 1, deadline.RemainingMs());
    } while (ready == -1 && errno == EINTR);
    return ready == 1;
}

}  // namespace

Peer PeerOf(int socket)
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == -1) {
        return {};
    }
    return {credentials.pid, credentials.uid};
}

int ConnectTo(const Fd& socket, const char* path)
{
    const sockaddr_un address = AddressOf(path);
    int result = -1;
    do {
        result = connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result == -1 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

Fd TryConnect(const char* path)
{
    Fd socket = NewSocket(SOCK_STREAM);
    const int error = ConnectTo(socket, path);
    if (error != 0) {
        socket.Reset();
        errno = error;
    }
    return socket;
}

// A datagram socket is connected without a message to its peer, and only to its like. The kernel compares the types
// last, after the permissions and after it has found a socket behind the file.
Held IsHeld(const char* path)
{
    switch (ConnectTo(NewSocket(SOCK_DGRAM), path)) {
        case EPROTOTYPE:
            return Held::kYes;
        case 0:
        case ECONNREFUSED:
        case ENOENT:
        case ENOTDIR:
            return Held::kNo;
        default:
            return Held::kUnknown;
    }
}

Fd ConnectToDaemon(const Deadline& deadline, const char* path)
{
    for (;;) {
        Fd socket = TryConnect(path);
        if (socket.valid()) {
            return socket;
        }
        if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR) {
            throw ExitError(kExitNoDaemon, fmt::format("no daemon listens at {}: {}", path, strerror(errno)));
        }
        if (errno != EAGAIN) {
            throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
        }
        if (deadline.Passed()) {
            throw ExitError(kExitTimeLimit, "the daemon takes no connections");
        }
        poll(nullptr, 0, kConnectRetryMs);  // no event tells when the queue has room
    }
}

Fd ListenAt(const char* path, int backlog)
{
    Fd socket = NewSocket(SOCK_STREAM);
    const sockaddr_un address = AddressOf(path);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1 ||
        listen(socket.get(), backlog) == -1) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
    }
    return socket;
}

bool WaitReadable(int fd, const Deadline& deadline)
{
    return WaitFor(fd, POLLIN, deadline);
}

void SendAll(const Fd& socket, const Bytes& bytes, const Deadline& deadline)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result =
            send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (result >= 0) {
            sent += static_cast<size_t>(result);
        } else if (errno == EAGAIN) {
            if (!WaitFor(socket.get(), POLLOUT, deadline)) {
                throw ExitError(kExitTimeLimit, "the peer does not read");
            }
        } else if (errno != EINTR) {
            throw ExitError(kExitFailed, fmt::format("the peer has closed the connection: {}", strerror(errno)));
        }
    }
}

}  // namespace tools
