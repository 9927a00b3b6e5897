#ifndef GAKPPC_SOCKET_DIAG_H
#define GAKPPC_SOCKET_DIAG_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tools {

// A Unix socket that listens, as the kernel knows it.
struct ListeningSocket {
    uint32_t number = 0;   // the kernel's number of the socket, as in /proc/PID/fd
    dev_t device = 0;      // st_dev of the file to which it was bound, and
    uint32_t inode = 0;    // the lower half of its st_ino, wherever the file has been moved since
    uint32_t waiting = 0;  // connections that wait to be accepted
    std::string path;      // to which it was bound
};

// All of this network namespace. Device and inode tell sockets apart that were bound to the same path in different
// mount namespaces. Needs no privilege. Nothing when the kernel does not answer such questions.
std::optional<std::vector<ListeningSocket>> ListeningSockets();

}  // namespace tools

#endif
