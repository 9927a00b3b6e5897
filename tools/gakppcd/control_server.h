#ifndef GAKPPC_CONTROL_SERVER_H
#define GAKPPC_CONTROL_SERVER_H

#include <poll.h>

#include <list>
#include <string>
#include <vector>

#include "common/deadline.h"
#include "control_connection.h"
#include "control_socket.h"

namespace tools {

// Listens for orders and passes them to a handler. Nothing in it blocks, whatever the peers do: each has its turn in
// each round of the daemon's loop. One thread only.
class ControlServer {
public:
    // So many connections at a time; others wait to be accepted. When all places are taken, the connection that has
    // been silent for the longest time, and for a second at least, loses its place to a new one. Silence ends with the
    // last look at the sockets: an order that waits because the daemon does not run is none.
    static constexpr size_t kMostConnections = 64;

    // Throws ExitError.
    ControlServer(const std::string& path, ControlHandler handler);

    // What the daemon's poll(2) is to wait for, besides.
    void AddTo(std::vector<pollfd>& events) const;

    // Whether Serve() has something to do, whatever poll(2) says.
    bool HasWork() const;

    void Serve();

    // Serves until all answers have been written that can be given, or the deadline comes.
    void Finish(const Deadline& deadline);

private:
    using Connections = std::list<ControlConnection>;

    bool HasRoom() const { return connections_.size() < kMostConnections; }
    // The one that loses its place, if any.
    Connections::const_iterator FindSilent() const;
    void Accept();

    const ControlHandler handler_;
    Connections connections_;
    ControlSocket socket_;  // its file goes before a peer learns of the end by that of its connection
    bool acceptFailed_ = false;
    Clock::time_point looked_ = Clock::now();  // at the connections' sockets, most recently
};

}  // namespace tools

#endif
