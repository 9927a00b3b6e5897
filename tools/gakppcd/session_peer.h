#ifndef GAKPPC_SESSION_PEER_H
#define GAKPPC_SESSION_PEER_H

#include "common/ppc_socket.h"

namespace tools {

// In a handler: the process at the other end of the session that brought the message, as the kernel knows it. A message
// only claims a process id.
Peer SessionPeer();

// A message is read from this descriptor, by the thread that runs its handler (driver_calls.cpp).
void SetSessionPeer(int fd);

}  // namespace tools

#endif
