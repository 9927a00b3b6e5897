#ifndef GAKPPC_CONNECTIONS_H
#define GAKPPC_CONNECTIONS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "socket_holders.h"

namespace tools {

// One end of a connection.
struct ConnectionEnd {
    uint32_t socket = 0;                  // the kernel's number; 0: it is closed, or was not accepted yet
    std::optional<uint32_t> unread;       // bytes that have come to this end and wait to be read
    std::optional<uid_t> user;            // who made the socket
    std::vector<SocketHolder> processes;  // that have it open, the oldest first; none: we may not see them
};

enum class ConnectionState {
    kEstablished,
    kPending,  // waits to be accepted
    kEnded,    // the worker's end is closed, the daemon's is not yet
};

struct Connection {
    ConnectionState state = ConnectionState::kEstablished;
    ConnectionEnd daemon;
    ConnectionEnd worker;
};

// How processes that connect to the daemon's path now come to a socket.
enum class Reach {
    kDirect,
    kThroughTap,  // a tap is in place and passes them on
    kNone,        // not at all: only earlier connections are left
    kUnknown,     // we may not look at the path
};

// A socket that a daemon, or a tap in its place, has bound, with all connections to it.
struct ServerSocket {
    bool isTap = false;
    Reach reach = Reach::kUnknown;
    uint32_t socket = 0;                  // the kernel's number; 0: it no longer listens, but has connections left
    std::optional<uid_t> user;            // who made the socket
    std::vector<SocketHolder> processes;  // that serve it, the oldest first; none: we may not see them
    std::vector<Connection> connections;
};

struct ServerSockets {
    std::vector<ServerSocket> servers;  // at most one has Reach::kDirect; it is the first
    bool complete = true;               // false: connections from other network namespaces may be missing
};

// All that processes which see the same files as we do can have found at the daemon's path, as the kernel knows them:
// no process takes part in it. /proc is read once. Throws ExitError when the kernel does not answer.
ServerSockets FindServerSockets();

}  // namespace tools

#endif
