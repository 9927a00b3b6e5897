#ifndef GAKPPC_SCHEDULE_SOCKET_LIMITS_H
#define GAKPPC_SCHEDULE_SOCKET_LIMITS_H

#include <cstddef>

// What a scenario makes of the sockets of its run.

namespace gaktest {

struct SocketLimits {
    bool smallBuffers = false;  // a few messages fill a socket
    size_t largestPiece = 0;    // the kernel takes no more at once, and others come in between; 0: all
};

extern SocketLimits socketLimits;

}  // namespace gaktest

#endif
