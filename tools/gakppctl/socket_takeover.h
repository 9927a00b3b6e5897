#ifndef GAKPPC_SOCKET_TAKEOVER_H
#define GAKPPC_SOCKET_TAKEOVER_H

#include <sys/types.h>

#include "common/fd.h"

namespace tools {

// Replaces the daemon's socket by one of our own, with the same mode and owner; the daemon's is kept under another
// name. Both are exchanged atomically, so workers find a socket at any time. The destructor restores the daemon's.
class SocketTakeover {
public:
    // Repairs first what a killed tap has left. Throws ExitError: kExitNoDaemon when nobody listens, kExitFailed when
    // another tap is in place.
    SocketTakeover();
    ~SocketTakeover();
    SocketTakeover(const SocketTakeover&) = delete;
    SocketTakeover& operator=(const SocketTakeover&) = delete;

    // Still has the workers that found our socket before it was removed.
    const Fd& Listener() const { return listener_; }

    // Whether our socket is still at the daemon's path. A daemon that starts replaces it.
    bool IsInPlace() const;

    // Whether nobody listens behind us any more. That stays so: the next daemon makes a socket of its own.
    bool HasLostDaemon() const;

    // Replaces the socket of a daemon that has replaced ours. The former listener; none when nobody listens at the
    // path yet. Throws as the constructor does for everything else.
    Fd TakeOverAgain();

    // Restores the daemon's socket. The listener stays open. When another socket has appeared at the path meanwhile,
    // that one stays and the saved one is removed. The second call does nothing.
    void Restore();

private:
    // Which file it is, whatever its name.
    struct FileId {
        dev_t device = 0;
        ino_t inode = 0;
    };
    static FileId IdOf(const char* path);
    static bool IsAt(const FileId& file, const char* path);

    void TakeOver();
    void Exchange();
    void ReleaseSaved();

    Fd listener_;
    FileId ours_;
    FileId saved_;
    bool active_ = false;
};

}  // namespace tools

#endif
