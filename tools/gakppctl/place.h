#ifndef GAKPPC_PLACE_H
#define GAKPPC_PLACE_H

#include <sys/types.h>

#include "common/fd.h"

namespace tools {

// Holds the place of the daemon's socket: a socket of our own, with the same mode and owner, stands at the daemon's
// path, the daemon's stands aside. Both change places in one step of the file system, so there is no moment in which a
// worker finds no socket. The destructor gives the place back.
class Place {
public:
    // Raises Failure: kExitNoDaemon when there is no socket, kExitFailed when another tap holds the place.
    Place();
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // Workers that have connected until now, and those that found our socket before it left, wait here to be accepted.
    const Fd& Listener() const { return listener_; }

    // Whether our socket still stands at the daemon's path. A daemon that starts anew puts its own there.
    bool IsOurs() const;

    // Puts the daemon's socket back. The listener stays open. When another socket has appeared at the path meanwhile,
    // that one stays and the old one is removed. Does nothing the second time.
    void GiveBack();

private:
    void MakeListener();
    void Exchange();

    Fd listener_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool held_ = false;
};

}  // namespace tools

#endif
