#ifndef GAKPPC_SOCKET_DIAG_H
#define GAKPPC_SOCKET_DIAG_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>

namespace tools {

// For each Unix socket that listens, by the kernel's number of the socket: the device (as in st_dev) of the file system
// in which it was bound. Distinguishes sockets that were bound at the same path in different mount namespaces; needs
// no privilege. Nothing when the kernel does not answer such questions.
std::optional<std::map<uint32_t, dev_t>> DevicesOfListeners();

}  // namespace tools

#endif
