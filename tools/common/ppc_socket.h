#ifndef GAKPPC_PPC_SOCKET_H
#define GAKPPC_PPC_SOCKET_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "deadline.h"
#include "fd.h"
#include "output.h"

namespace tools {

// The one server id of the system, and where it listens.
constexpr uint32_t kServerId = 19280;
constexpr char kHomeDir[] = "/home/KrovaUser";
constexpr char kSocketDir[] = "/home/KrovaUser/qel_ppc";
constexpr char kSocketPath[] = "/home/KrovaUser/qel_ppc/sock_server_19280";
// While a tap has the socket's place, the daemon's socket stands here.
constexpr char kAsidePath[] = "/home/KrovaUser/qel_ppc/sock_server_19280.tap";

// The process at the other end of a connection, as the kernel knows it.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};
Peer PeerOf(const Fd& socket);

// A new connection to the socket at `path`, which does not block. Invalid, with errno set, when that fails; EAGAIN
// means that the listener's queue is full.
Fd TryConnect(const char* path);

// TryConnect until there is room in the queue. Failure kExitNoDaemon when nobody listens, kExitTimeLimit when the
// deadline comes first.
Fd ConnectToDaemon(const Deadline& deadline);

// A socket that listens at `path`, which must not exist. It does not block. Raises Failure.
Fd ListenAt(const char* path, int backlog);

// Waits until `fd` has something to read, or its end. False when the deadline came first.
bool WaitReadable(int fd, const Deadline& deadline);

// Sends all bytes. Failure kExitFailed when the peer has gone, kExitTimeLimit when the deadline comes first.
void SendAll(const Fd& socket, const Bytes& bytes, const Deadline& deadline);

}  // namespace tools

#endif
