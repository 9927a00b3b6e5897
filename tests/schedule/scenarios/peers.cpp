#include "peers.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "scenario.h"

namespace gaktest {
namespace {

constexpr size_t kHeadSize = 8;  // the frame's length and the message's
constexpr size_t kMostBytes = 64;

enum Field : uint8_t { kType = 1, kSourceId, kDestinationId, kProcessType, kPid };

sockaddr_un ServerAddress()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "/home/KrovaUser/qel_ppc/sock_server_%d", kServerId);
    return address;
}

uint32_t ReadVarint(const uint8_t*& byte, const uint8_t* end)
{
    uint32_t value = 0;
    for (int shift = 0; byte < end; shift += 7) {
        value |= static_cast<uint32_t>(*byte & 0x7FU) << shift;
        if ((*byte++ & 0x80U) == 0) {
            break;
        }
    }
    return value;
}

WireMessage Decode(const uint8_t* byte, size_t size)
{
    WireMessage message;
    const uint8_t* const end = byte + size;
    while (byte < end) {
        const uint32_t tag = ReadVarint(byte, end);
        const auto value = static_cast<uint8_t>(ReadVarint(byte, end));
        switch (tag >> 3) {
            case kType:
                message.type = value;
                break;
            case kSourceId:
                message.sourceId = value;
                break;
            case kDestinationId:
                message.destinationId = value;
                break;
            case kProcessType:
                message.processType = value;
                break;
            case kPid:
                message.pid = value;
                break;
            default:
                break;  // nothing that is asked for here
        }
    }
    return message;
}

}  // namespace

bool Peer::Connect()
{
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = ServerAddress();
    return connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool Peer::Send(const WireMessage& message)
{
    const uint8_t frame[] = {0,
                             0,
                             0,
                             14,
                             10,
                             0,
                             0,
                             0,  //
                             kType << 3,
                             message.type,
                             kSourceId << 3,
                             message.sourceId,
                             kDestinationId << 3,
                             message.destinationId,
                             kProcessType << 3,
                             message.processType,
                             kPid << 3,
                             message.pid};
    return send(fd_, frame, sizeof(frame), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(frame));
}

std::optional<WireMessage> Peer::Receive()
{
    return Receive(Cut::kIsAFinding);
}

std::optional<WireMessage> Peer::ReceiveOrCutFrame()
{
    return Receive(Cut::kIsAnEnd);
}

std::optional<WireMessage> Peer::Receive(Cut cut)
{
    uint8_t head[kHeadSize];
    uint8_t body[kMostBytes];
    if (!ReadExactly(head, sizeof(head), cut)) {
        return std::nullopt;
    }
    const size_t size = head[4];
    Require(head[0] == 0 && head[1] == 0 && head[2] == 0 && head[3] == size + 4 && size <= kMostBytes,
            "the peer reads bytes that are no frame");
    if (!ReadExactly(body, size, cut)) {
        Require(cut == Cut::kIsAnEnd, "the connection ends inside a frame");
        return std::nullopt;
    }
    return Decode(body, size);
}

// False at the end, which the peer may also have forced on us by leaving bytes unread.
bool Peer::ReadExactly(void* buffer, size_t size, Cut cut)
{
    size_t total = 0;
    while (total < size) {
        const ssize_t received = recv(fd_, static_cast<uint8_t*>(buffer) + total, size - total, 0);
        if (received <= 0) {
            Require(received < 0 || total == 0 || cut == Cut::kIsAnEnd, "the connection ends inside a frame");
            return false;
        }
        total += static_cast<size_t>(received);
    }
    return true;
}

void Peer::Close()
{
    if (fd_ >= 0) {
        close(std::exchange(fd_, -1));
    }
}

Listener::Listener(int backlog) : fd_(socket(AF_UNIX, SOCK_STREAM, 0))
{
    const sockaddr_un address = ServerAddress();
    Require(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "the peer cannot bind");
    Require(listen(fd_, backlog) == 0, "the peer cannot listen");
}

Peer Listener::Accept()
{
    return Peer(accept(fd_, nullptr, nullptr));
}

void Listener::Close()
{
    if (fd_ >= 0) {
        close(std::exchange(fd_, -1));
    }
}

}  // namespace gaktest
