#ifndef GAKPPC_WORKER_CLAIMS_H
#define GAKPPC_WORKER_CLAIMS_H

#include <cstdint>
#include <map>
#include <string>

#include "common/connections.h"

namespace tools {

// What a worker has told its daemon of itself.
struct Claim {
    uint32_t device = 0;
    std::string processType;
    uint32_t pid = 0;
};

// By the kernel's number of the daemon's end of the connection.
using Claims = std::map<uint32_t, Claim>;

// Asks the gakppcd that listens at the control socket, the default one if `path` is empty, what the workers claim on
// those connections whose daemon's end it holds itself. A connection on which several claims were made has none. None
// at all when that process gives no such answer, whatever it does instead; it is waited for, for a second.
Claims AskForClaims(const ServerSockets& found, const std::string& path);

}  // namespace tools

#endif
