#ifndef GAKPPC_RELAY_H
#define GAKPPC_RELAY_H

#include <sys/epoll.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "channel.h"
#include "common/record.h"

namespace tools {

// Accepts workers on a listener, connects to the daemon for each of them, and forwards what both send, unchanged and in
// order. A connection that one end closes is closed at the other end as soon as everything has been forwarded. Single
// threaded, one epoll; the owner drives it by calling Step.
class Relay {
public:
    using Sink = std::function<void(Record&&)>;

    // `listener` stays the caller's; `daemonPath` is connected to. `sink` gets everything after it happened.
    Relay(int listener, const char* daemonPath, Sink sink);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Step returns as soon as this descriptor is readable.
    void WakeOn(int fd) { Watch(fd, nullptr); }

    // Accepts on this one from now on, after those that wait at the former one, which must still be open.
    void SetListener(int listener);

    // Workers that connect from now on are refused, as where nobody listens, until there is another listener.
    void Refuse();
    bool IsRefusing() const { return refusing_; }

    // Waits up to `timeoutMs` for events and handles them. True when the time has passed or a descriptor of WakeOn is
    // readable.
    bool Step(int timeoutMs);

    // Where workers are connected to from now on.
    void SetDaemonPath(const char* path) { daemonPath_ = path; }

    // Connections that are open or still to be connected to the daemon.
    size_t Open() const { return connections_.size(); }

private:
    struct Connection;
    struct End {
        Connection* connection;
        bool isWorker;
        Fd fd;
        Peer peer;
        uint32_t interest = 0;
        bool registered = false;
        bool hungUp = false;  // the peer has closed altogether
    };

    void Watch(int fd, void* mark);
    void AcceptAll();
    void ConnectPeer(Connection& connection);
    void ConnectPending();
    void Handle(End& end, uint32_t events);
    void AfterPump(Connection& connection);
    void Close(Connection& connection);
    void SetInterest(End& end);
    void Report(const Connection& connection, RecordKind kind);
    FrameStream::Sink ReportItems(const Connection& connection, Direction direction);
    void PauseAccepting(bool pause);

    int listener_;
    const char* daemonPath_;
    Sink sink_;
    Fd epoll_;
    uint32_t lastNumber_ = 0;
    bool acceptingPaused_ = false;
    bool refusing_ = false;
    size_t pendingConnects_ = 0;
    bool someClosed_ = false;
    std::list<std::unique_ptr<Connection>> connections_;
};

}  // namespace tools

#endif
