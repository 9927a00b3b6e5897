#ifndef GAKPPC_SOCKET_TAKEOVER_H
#define GAKPPC_SOCKET_TAKEOVER_H

#include <sys/types.h>

#include "common/fd.h"

namespace tools {

// Replaces the daemon's socket by one of our own, with the same mode and owner; the daemon's is kept under another
// name. Both are exchanged atomically, so workers find a socket at any time. The destructor restores the daemon's.
class SocketTakeover {
public:
    // Throws ExitError: kExitNoDaemon when there is no socket, kExitFailed when another tap is in place.
    SocketTakeover();
    ~SocketTakeover();
    SocketTakeover(const SocketTakeover&) = delete;
    SocketTakeover& operator=(const SocketTakeover&) = delete;

    // Still has the workers that found our socket before it was removed.
    const Fd& Listener() const { return listener_; }

    // Whether our socket is still at the daemon's path. A daemon that starts replaces it.
    bool IsInPlace() const;

    // Restores the daemon's socket. The listener stays open. When another socket has appeared at the path meanwhile,
    // that one stays and the saved one is removed. The second call does nothing.
    void Restore();

private:
    void MakeListener();
    void Exchange();

    Fd listener_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool active_ = false;
};

}  // namespace tools

#endif
