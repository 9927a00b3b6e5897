#ifndef GAKPPC_SOCKET_DIAG_H
#define GAKPPC_SOCKET_DIAG_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fd.h"

namespace tools {

// A Unix socket that listens or is connected, as the kernel knows it.
struct UnixSocket {
    uint32_t number = 0;  // the kernel's number of the socket, as in /proc/PID/fd
    bool listens = false;
    dev_t device = 0;           // st_dev of the file to which it was bound, and
    uint32_t inode = 0;         // the lower half of its st_ino, wherever the file has been moved since
    std::string path;           // to which it was bound; an accepted socket has all three of its listener
    uint32_t peer = 0;          // the number of the connected socket; 0: not accepted yet, or closed
    uint32_t waiting = 0;       // of a listener connections that wait to be accepted, else bytes to be read, as SIOCINQ
    uint32_t sendMemory = 0;    // what is sent and not read by the peer, with what the kernel needs to hold it
    std::optional<uid_t> user;  // who made it
};

// Those of this network namespace that listen. Device and inode tell sockets apart that were bound to the same path in
// different mount namespaces. Needs no privilege. Nothing, with errno set, when the kernel does not answer such
// questions.
std::optional<std::vector<UnixSocket>> ListeningSockets();

// For questions about the sockets of this network namespace or of another one, which root and the owner of that
// namespace may ask: a thread enters it for a moment. Invalid when the kernel refuses that; the first one sets errno.
// An accepted socket belongs to the namespace of the process that connected.
Fd OpenSocketDiag();
Fd OpenSocketDiagIn(const Fd& network);

// The sockets that listen or are connected. Nothing, with errno set, when the kernel does not answer.
std::optional<std::vector<UnixSocket>> ListeningAndConnectedSockets(const Fd& diag);

// The sockets whose connections wait to be accepted by this listener; 0 for one that has been closed. Nothing, with
// errno set, when the kernel does not tell, as for very long queues.
std::optional<std::vector<uint32_t>> PendingClients(const Fd& diag, uint32_t listener);

}  // namespace tools

#endif
