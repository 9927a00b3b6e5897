#ifndef GAKPPC_PPC_SOCKET_H
#define GAKPPC_PPC_SOCKET_H

#include <gakppc/gak_limits.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "deadline.h"
#include "fd.h"
#include "output.h"

namespace tools {

// Where the library's server listens; the name of the socket holds its id.
static_assert(qel::kPpcServerId == 19280);
constexpr char kHomeDir[] = "/home/KrovaUser";
constexpr char kSocketDir[] = "/home/KrovaUser/qel_ppc";
constexpr char kSocketPath[] = "/home/KrovaUser/qel_ppc/sock_server_19280";
// While a tap has taken over, the daemon's socket is here.
constexpr char kSavedSocketPath[] = "/home/KrovaUser/qel_ppc/sock_server_19280.tap";

// The process at the other end of a connection, as the kernel knows it.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};
Peer PeerOf(int socket);
inline Peer PeerOf(const Fd& socket)
{
    return PeerOf(socket.get());
}

// connect() to the socket at `path`, also when a signal interrupts it: 0 or the errno.
int ConnectTo(const Fd& socket, const char* path);

// A new non-blocking connection to the socket at `path`. Invalid, with errno set, when that fails; EAGAIN
// means that the listener's queue is full.
Fd TryConnect(const char* path);

// Whether a process has a stream socket open that is bound to the file at `path`, as far as we may know. Nothing
// reaches that process.
enum class Held { kYes, kNo, kUnknown };
Held IsHeld(const char* path);

// TryConnect until there is room in the queue. ExitError kExitNoDaemon when nobody listens, kExitTimeLimit when the
// deadline comes first.
Fd ConnectToDaemon(const Deadline& deadline, const char* path = kSocketPath);

// A non-blocking socket that listens at `path`, which must not exist. Throws ExitError.
Fd ListenAt(const char* path, int backlog);

// Waits until `fd` has something to read, or its end. False when the deadline came first.
bool WaitReadable(int fd, const Deadline& deadline);

// Sends all bytes. ExitError kExitFailed when the peer has gone, kExitTimeLimit when the deadline comes first.
void SendAll(const Fd& socket, const Bytes& bytes, const Deadline& deadline);

}  // namespace tools

#endif
