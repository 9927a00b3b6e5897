#ifndef GAKPPC_SOCKET_HOLDERS_H
#define GAKPPC_SOCKET_HOLDERS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fd.h"
#include "output.h"

namespace tools {

// A process that has a socket open. It may have ended since; its number is never that of another process.
struct SocketHolder {
    pid_t pid = 0;
    std::vector<int> descriptors;
    std::optional<std::string> program;  // what the process calls itself: any bytes
    std::optional<SystemTime> started;   // to the second
};

// What /proc shows of all processes.
struct SocketHolders {
    std::map<uint32_t, std::vector<SocketHolder>> of;  // by the kernel's number of the socket, the oldest first
    std::vector<Fd> otherNetworks;                     // the network namespaces that are not ours
    bool complete = true;                              // we may look into every process that /proc lists

    std::vector<SocketHolder> Of(uint32_t socket) const;
};

// Reads /proc once. A socket that no process holds whose descriptors we may read is missing.
SocketHolders FindSocketHolders();

}  // namespace tools

#endif
