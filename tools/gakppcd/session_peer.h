#ifndef GAKPPC_SESSION_PEER_H
#define GAKPPC_SESSION_PEER_H

#include <cstdint>

#include "common/ppc_socket.h"

namespace tools {

// Who sent a message, as the kernel knows it. The message only claims a process id.
struct Sender {
    Peer peer;
    uint32_t socket = 0;  // the kernel's number of this daemon's end of the connection; 0: not known
};

// In a handler: the sender of the message.
Sender SessionPeer();

// A message is read from this descriptor, by the thread that runs its handler (driver_calls.cpp).
void SetSessionPeer(int fd);

}  // namespace tools

#endif
