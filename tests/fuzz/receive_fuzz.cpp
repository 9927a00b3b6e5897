// Any byte stream, through a real socket, into the driver's receive and the codec. The input is the stream. Every
// status is compared with what an independent reading of the bytes says, and the first messages are sent back.

#include <sys/socket.h>

#include <cstring>
#include <optional>

#include "fuzz_input.h"
#include "ppc.h"
#include "ppc_interface.h"
#include "raw_peer.h"
#include "status_table.h"

namespace {

using gaktest::Bytes;
using gaktest::Fd;
using qel::PPCMessage;

constexpr int kServerId = 19280;
// The driver takes memory for a length as soon as it is announced. Large ones would only measure the allocator here;
// tests of the driver and of hostile peers have them.
constexpr uint32_t kLargestAnnounced = 4096;
constexpr size_t kMostAnswers = 2;
// Ended sessions are remembered: once that many have ended, every further one frees as much as it takes, and a leak of
// one input shows.
constexpr int kSessionsRemembered = 4096;

PpcServerHead* endpoint = nullptr;

// A driver session and the peer at its other end.
class Connection {
public:
    Connection() : peer_(gaktest::RawConnect(kServerId))
    {
        FUZZ_CHECK(peer_.valid());
        FUZZ_CHECK(drvPpcSessionAccept(endpoint, &session_) == PPC_OK);
    }
    ~Connection() { FUZZ_CHECK(drvPpcSessionClose(session_) == PPC_OK); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const Fd& Peer() const { return peer_; }
    PpcSession* Session() const { return session_; }

private:
    Fd peer_;
    PpcSession* session_ = nullptr;
};

uint32_t LengthField(const uint8_t* bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// Frames of a stream, as the wire format has them.
class Frames {
public:
    explicit Frames(const Bytes& stream) : stream_(stream) {}

    // The status of receiving the next frame. kStatusOk: Payload() is the frame's.
    uint32_t Next()
    {
        const size_t left = stream_.size() - at_;
        if (left == 0) {
            return qel::kStatusPpcSocketClosed;
        }
        if (left < 4) {
            return qel::kStatusPpcSendRecvFail;
        }
        const uint32_t length = LengthField(&stream_[at_]);
        if (length == 0) {
            return qel::kStatusPpcBufferNull;
        }
        if (length > PPC_MAX_MSG_LEN || left - 4 < length) {
            return qel::kStatusPpcSendRecvFail;
        }
        payload_.assign(stream_.begin() + static_cast<ptrdiff_t>(at_ + 4),
                        stream_.begin() + static_cast<ptrdiff_t>(at_ + 4 + length));
        at_ += 4 + length;
        return qel::kStatusOk;
    }

    const Bytes& Payload() const { return payload_; }

private:
    const Bytes& stream_;
    size_t at_ = 0;
    Bytes payload_;
};

// Replaces the lengths that would be allocated by smaller ones.
void CapAnnouncedLengths(Bytes& stream)
{
    for (size_t at = 0; stream.size() - at >= 4;) {
        uint32_t length = LengthField(&stream[at]);
        if (length > PPC_MAX_MSG_LEN) {
            return;  // refused before anything is allocated
        }
        length %= kLargestAnnounced + 1;
        stream[at] = 0;
        stream[at + 1] = 0;
        stream[at + 2] = static_cast<uint8_t>(length >> 8);
        stream[at + 3] = static_cast<uint8_t>(length);
        if (length == 0 || stream.size() - at - 4 < length) {
            return;
        }
        at += 4 + length;
    }
}

// The codec's status for a payload that has arrived.
uint32_t StatusOf(const Bytes& payload)
{
    uint32_t encodedSize = 0;
    if (payload.size() >= sizeof(encodedSize)) {
        memcpy(&encodedSize, payload.data(), sizeof(encodedSize));
    }
    if (encodedSize > 0xFFFFFFFA) {
        return qel::kStatusIntegerReversed;
    }
    const size_t wanted = sizeof(encodedSize) + encodedSize;
    return payload.size() == wanted ? qel::kStatusOk : qel::kStatusPpcLengthMismatch;
}

// Compared with the decoder of the tests, which knows nothing of the generated code, where both take all of it: that
// one knows no other fields, the generated code refuses names that are not UTF-8.
void CheckContent(const PPCMessage& msg, const Bytes& payload)
{
    const std::optional<gaktest::RawMessage> raw = gaktest::DecodePayload(payload);
    const int size = static_cast<int>(payload.size()) - 4;
    if (!raw.has_value() || !PPCMessage().ParseFromArray(payload.data() + 4, size)) {
        return;
    }
    FUZZ_CHECK(static_cast<uint32_t>(msg.type()) == raw->type);
    FUZZ_CHECK(msg.src_id() == raw->src_id);
    FUZZ_CHECK(msg.dest_id() == raw->dest_id);
    FUZZ_CHECK(static_cast<uint32_t>(msg.proc_type()) == raw->proc_type);
    FUZZ_CHECK(msg.sub_proc_pid() == raw->sub_proc_pid);
    FUZZ_CHECK(msg.host_pid() == raw->host_pid);
    FUZZ_CHECK(msg.has_lib_names() == raw->lib_names.has_value());
}

// Sends it back: what was received can always be sent, as one frame that holds its encoding.
void Answer(const Connection& connection, qel::PpcInterface& codec, const PPCMessage& msg)
{
    FUZZ_CHECK(codec.SendMsg(connection.Session(), msg) == qel::kStatusOk);
    const std::string encoding = msg.SerializePartialAsString();
    const auto size = static_cast<uint32_t>(encoding.size());
    Bytes payload(sizeof(size));
    memcpy(payload.data(), &size, sizeof(size));
    payload.insert(payload.end(), encoding.begin(), encoding.end());
    const Bytes wanted = gaktest::FrameBytes(payload);
    Bytes sent(wanted.size());
    FUZZ_CHECK(recv(connection.Peer().get(), sent.data(), sent.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(sent.size()));
    FUZZ_CHECK(sent == wanted);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    google::protobuf::SetLogHandler(nullptr);  // it complains about names that are not UTF-8
    FUZZ_CHECK(ppcInit() == 0);
    FUZZ_CHECK(drvPpcServerCreate(kServerId, &endpoint) == PPC_OK);
    for (int i = 0; i < kSessionsRemembered; ++i) {
        const Connection connection;
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Bytes stream(data, data + size);
    CapAnnouncedLengths(stream);
    const Connection connection;
    FUZZ_CHECK(gaktest::WriteAll(connection.Peer(), stream));
    shutdown(connection.Peer().get(), SHUT_WR);

    qel::PpcInterface codec;
    Frames frames(stream);
    size_t answers = 0;
    uint32_t arrived = 0;
    while ((arrived = frames.Next()) == qel::kStatusOk) {
        PPCMessage msg;
        const uint32_t status = codec.RecvMsg(connection.Session(), msg);
        FUZZ_CHECK(status == StatusOf(frames.Payload()));
        if (status == qel::kStatusOk) {
            CheckContent(msg, frames.Payload());
            if (answers++ < kMostAnswers) {
                Answer(connection, codec, msg);
            }
        }
    }
    PPCMessage msg;
    FUZZ_CHECK(codec.RecvMsg(connection.Session(), msg) == arrived);
    return 0;
}
