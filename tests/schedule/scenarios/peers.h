#ifndef GAKPPC_SCHEDULE_PEERS_H
#define GAKPPC_SCHEDULE_PEERS_H

#include <cstdint>
#include <optional>

// The other end of the wire, with plain system calls and bytes of its own.

namespace gaktest {

constexpr int kServerId = 19280;

// The fields of a message, each below 128 but for the destination, which nobody reads here.
struct WireMessage {
    uint8_t type = 0;
    uint8_t sourceId = 0;
    uint8_t destinationId = 0;
    uint8_t processType = 0;
    uint8_t pid = 0;
};

constexpr uint8_t kStartRsp = 0;
constexpr uint8_t kHeartbeat = 2;
constexpr uint8_t kShutdown = 5;
constexpr uint8_t kCompute = 1;
constexpr uint8_t kCustomCompute = 2;

// One end of a connection. Closed with the object.
class Peer {
public:
    Peer() = default;
    explicit Peer(int fd) : fd_(fd) {}
    ~Peer() { Close(); }
    Peer(Peer&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // False when nobody listens.
    bool Connect();
    // False when the other end has gone.
    bool Send(const WireMessage& message);
    // Empty at the end of the connection. Bytes that are no message are a finding.
    std::optional<WireMessage> Receive();
    // The same, and a message that is cut is none.
    std::optional<WireMessage> ReceiveOrCutFrame();
    // Whether the connection ends without another message.
    bool ReadsEnd() { return !Receive().has_value(); }
    void Close();

private:
    enum class Cut { kIsAFinding, kIsAnEnd };

    std::optional<WireMessage> Receive(Cut cut);
    bool ReadExactly(void* buffer, size_t size, Cut cut);

    int fd_ = -1;
};

// Listens as a daemon does.
class Listener {
public:
    explicit Listener(int backlog = 10);
    ~Listener() { Close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    Peer Accept();
    void Close();

private:
    int fd_;
};

}  // namespace gaktest

#endif
