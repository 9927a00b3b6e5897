// The least that carries the library's frames: the same system calls, the message classes, one allocation each way.
// With GAKPPC_BENCH_ONE_HANDLER set, the daemon holds a mutex while it answers: one handler at a time, as in the
// library.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "candidate.h"
#include "unix_socket.h"

namespace bench {
namespace {

constexpr size_t kLengthSize = 4;

void SendFrame(int fd, const qel::PPCMessage& msg)
{
    const auto encoded = static_cast<uint32_t>(msg.ByteSizeLong());
    const size_t size = encoded + kLengthSize;
    auto* payload = static_cast<uint8_t*>(malloc(size));
    Require(payload != nullptr, "malloc");
    memcpy(payload, &encoded, kLengthSize);
    msg.SerializeWithCachedSizesToArray(payload + kLengthSize);
    uint32_t length = htonl(static_cast<uint32_t>(size));
    const iovec parts[] = {{&length, kLengthSize}, {payload, size}};
    Require(writev(fd, parts, 2) == static_cast<ssize_t>(size + kLengthSize), "writev");
    free(payload);
}

// False when the peer has closed.
bool ReceiveFrame(int fd, qel::PPCMessage& msg)
{
    uint32_t length = 0;
    if (recv(fd, &length, kLengthSize, MSG_PEEK) != static_cast<ssize_t>(kLengthSize)) {
        return false;
    }
    const size_t size = ntohl(length);
    auto* payload = static_cast<uint8_t*>(malloc(size));
    Require(payload != nullptr && size >= kLengthSize, "malloc");
    Require(recv(fd, &length, kLengthSize, 0) == static_cast<ssize_t>(kLengthSize), "recv");
    for (size_t total = 0; total < size;) {
        const ssize_t received = recv(fd, payload + total, size - total, 0);
        Require(received > 0, "recv");
        total += static_cast<size_t>(received);
    }
    uint32_t encoded = 0;
    memcpy(&encoded, payload, kLengthSize);
    Require(encoded + kLengthSize == size && msg.ParseFromArray(payload + kLengthSize, static_cast<int>(encoded)),
            "decoding");
    free(payload);
    return true;
}

void Handle(int fd, const qel::PPCMessage& msg)
{
    if (IsAnswered(msg)) {
        SendFrame(fd, AnswerTo(msg));
    }
}

void ServeConnection(int fd)
{
    qel::PPCMessage msg;
    while (ReceiveFrame(fd, msg)) {
        Handle(fd, msg);
    }
}

void ServeConnectionOneHandlerAtATime(int fd)
{
    static std::mutex handlerMutex;
    qel::PPCMessage msg;
    while (ReceiveFrame(fd, msg)) {
        const std::lock_guard<std::mutex> lock(handlerMutex);
        Handle(fd, msg);
    }
}

class FloorLink : public Link {
public:
    explicit FloorLink(const std::string& path) : fd_(ConnectTo(path)) {}
    ~FloorLink() override { close(fd_); }
    FloorLink(const FloorLink&) = delete;
    FloorLink& operator=(const FloorLink&) = delete;

    void Send(const qel::PPCMessage& msg) override { SendFrame(fd_, msg); }
    void Receive(qel::PPCMessage& msg) override { Require(ReceiveFrame(fd_, msg), "recv"); }

private:
    const int fd_;
};

}  // namespace

std::unique_ptr<Daemon> Serve(const std::string& address)
{
    signal(SIGPIPE, SIG_IGN);
    const bool oneHandler = getenv("GAKPPC_BENCH_ONE_HANDLER") != nullptr;
    ServeEachConnection(address, oneHandler ? ServeConnectionOneHandlerAtATime : ServeConnection);
    return std::make_unique<Daemon>();
}

std::unique_ptr<Link> Connect(const std::string& address)
{
    signal(SIGPIPE, SIG_IGN);
    return std::make_unique<FloorLink>(address);
}

}  // namespace bench
