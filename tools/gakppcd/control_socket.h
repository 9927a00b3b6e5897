#ifndef GAKPPC_CONTROL_SOCKET_H
#define GAKPPC_CONTROL_SOCKET_H

#include <sys/types.h>

#include <string>

#include "common/fd.h"

namespace tools {

// The socket on which orders come, and its file of mode 0600. The file of a daemon that has been killed is replaced,
// that of a living one never, nor anything that is no socket. The destructor removes the file if it is still this one.
class ControlSocket {
public:
    // Throws ExitError.
    explicit ControlSocket(std::string path);
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    int get() const { return socket_.get(); }

private:
    // Held while the file changes, so that two daemons do not take each other's new file for a leftover.
    Fd LockDirectory() const;
    void RemoveLeftover() const;

    const std::string path_;
    Fd socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace tools

#endif
