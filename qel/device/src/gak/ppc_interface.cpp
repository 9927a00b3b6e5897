#include "ppc_interface.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "gak_log.h"
#include "memguard.h"
#include "ppc.h"
#include "status_table.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/src/gak/ppc_interface";

// The payload begins with the encoded length, in the host's byte order (the frame's own length field is big-endian).
constexpr uint32_t kInnerLengthSize = 4;
constexpr uint32_t kLargestEncodedSize = 0xFFFFFFFA;  // more, and the payload length would overflow
constexpr uint32_t kLargestPayload = 0x20000000;      // 512 MiB
constexpr uint32_t kClearedAhead = 4096;              // all of a usual payload
constexpr uint32_t kLongPayload = 16384;
constexpr uint32_t kLongPayloadShift = 256;
constexpr uint32_t kReceiveReserved = 0x100000;

// A message descriptor of the driver, freed on every path.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor()
    {
        if (msg_ != nullptr) {
            drvPpcFreeMsg(msg_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Alloc(void* session) { return drvPpcAllocMsg(static_cast<PpcSession*>(session), &msg_, 1); }
    // Frees it now; the result is the driver's.
    int Free() { return drvPpcFreeMsg(std::exchange(msg_, nullptr)); }
    // Gives up a pointer that a failed Alloc left behind.
    void Forget() { msg_ = nullptr; }
    PpcMsg* Get() const { return msg_; }

private:
    PpcMsg* msg_ = nullptr;
};

uint32_t EncodedSize(const PPCMessage& msg)
{
    return static_cast<uint32_t>(std::min<size_t>(msg.ByteSizeLong(), UINT32_MAX));
}

// The bytes of an outgoing message.
//
// A long payload begins some way into its memory. Long memory begins at the same place in a page each time; so does the
// long text in the message, which is copied a few bytes behind the payload's beginning. A processor takes source and
// destination of such a copy, which are nearly at the same place in a page, for overlapping ones, and is slow.
class Payload {
public:
    explicit Payload(uint32_t size) : size_(size), shift_(size < kLongPayload ? 0 : kLongPayloadShift) {}

    // False when the payload is too long or memory runs out. The tail of a long payload is not cleared: every byte is
    // written next, and clearing it would double the work.
    bool Alloc()
    {
        if (size_ > kLargestPayload) {
            return false;
        }
        memory_.reset(new (std::nothrow) uint8_t[size_ + shift_]);
        return memory_ != nullptr && memset_s(Bytes(), size_, 0, std::min(size_, kClearedAhead)) == 0;
    }
    uint8_t* Bytes() const { return memory_.get() + shift_; }

private:
    const uint32_t size_;
    const uint32_t shift_;
    std::unique_ptr<uint8_t[]> memory_;
};

// The encoded length that a payload announces; 0 when the payload is too short to hold it.
uint32_t InnerLength(const void* payload, uint32_t size)
{
    uint32_t length = 0;
    if (size >= kInnerLengthSize) {
        memcpy(&length, payload, kInnerLengthSize);
    }
    return length;
}

// False when memory runs out. A message that cannot be decoded leaves what could be, which is the receiver's to judge.
bool Decode(const void* payload, uint32_t encodedSize, PPCMessage& msg)
{
    try {
        msg.ParseFromArray(static_cast<const uint8_t*>(payload) + kInnerLengthSize, static_cast<int>(encodedSize));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

PpcInterface::PpcInterface() = default;
PpcInterface::~PpcInterface() = default;

uint32_t PpcInterface::SendMsg(void* session, const PPCMessage& msg)
{
    if (session == nullptr) {
        GAK_STATUS(kStatusPpcNoSession, "[GAKPPCIF] SendMsg() serverId-%u  src_devid %u ppcSession is not existed",
                   msg.dest_id(), msg.src_id());
        return kStatusPpcNoSession;
    }
    const uint32_t encodedSize = EncodedSize(msg);
    GAK_INFO("PpcInterface::SendMsg, size=%u, subpid=%u", encodedSize, msg.sub_proc_pid());
    if (encodedSize > kLargestEncodedSize) {
        GAK_STATUS(kStatusIntegerReversed, "Integer reversed addA: %u + addB: %u", encodedSize, kInnerLengthSize);
        return kStatusIntegerReversed;
    }
    const uint32_t size = encodedSize + kInnerLengthSize;
    Payload payload(size);
    if (!payload.Alloc()) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCIF] SendMsg() msgBuffer is nullptr error");
        return kStatusMemoryExhausted;
    }
    memcpy(payload.Bytes(), &encodedSize, kInnerLengthSize);
    msg.SerializePartialToArray(payload.Bytes() + kInnerLengthSize, static_cast<int>(encodedSize));

    // Declared after the payload: the descriptor goes first, the payload stays ours and goes last.
    Descriptor descriptor;
    descriptor.Alloc(session);
    if (descriptor.Get() == nullptr) {
        GAK_STATUS(kStatusPpcMsgAllocFail, "[GAKPPCIF] SendMsg() Alloc memory for PPCMessage fail");
        return kStatusPpcMsgAllocFail;
    }
    if (drvPpcAddMsgBuffer(descriptor.Get(), payload.Bytes(), static_cast<int>(size)) != PPC_OK) {
        GAK_STATUS(kStatusPpcMsgBufferFail, "[GAKPPCIF] SendMsg() add msg buffer fail");
        return kStatusPpcMsgBufferFail;
    }
    if (drvPpcSend(static_cast<PpcSession*>(session), descriptor.Get(), 0) != PPC_OK) {
        GAK_STATUS(kStatusPpcSendRecvFail, "[GAKPPCIF] SendMsg() Send message buffer fail");
        return kStatusPpcSendRecvFail;
    }
    if (descriptor.Free() != PPC_OK) {
        GAK_STATUS(kStatusPpcMsgFreeFail, "[GAKPPCIF] SendMsg() drvPpcFreeMsg fail");
        return kStatusPpcMsgFreeFail;
    }
    return kStatusOk;
}

uint32_t PpcInterface::RecvMsg(void* session, PPCMessage& msg)
{
    Descriptor descriptor;
    if (descriptor.Alloc(session) != PPC_OK || descriptor.Get() == nullptr) {
        descriptor.Forget();
        GAK_STATUS(kStatusPpcMsgAllocFail, "[GAKPPCIF] drvPpcAllocMsg fail");
        return kStatusPpcMsgAllocFail;
    }
    uint32_t count = 0;
    const int received = drvPpcRecv(static_cast<PpcSession*>(session), descriptor.Get(), kReceiveReserved, 0, &count);
    if (received != PPC_OK) {
        GAK_STATUS(kStatusWarning, "[GAKPPCIF] drvPpcRecv fail %d", received);
        return received == PPC_ERR_SOCKET_CLOSED ? kStatusPpcSocketClosed : kStatusPpcSendRecvFail;
    }
    void* payload = nullptr;
    uint32_t size = 0;
    if (drvPpcGetMsgBuffer(descriptor.Get(), 0, &payload, &size) != PPC_OK) {
        GAK_STATUS(kStatusPpcMsgBufferFail, "[GAKPPCIF] drvPpcGetMsgBuffer fail");
        return kStatusPpcMsgBufferFail;
    }
    if (payload == nullptr) {
        GAK_STATUS(kStatusPpcBufferNull, "[GAKPPCIF] RecvMsg() Message buffer is null");
        return kStatusPpcBufferNull;
    }
    const uint32_t encodedSize = InnerLength(payload, size);
    if (encodedSize > kLargestEncodedSize) {
        GAK_STATUS(kStatusIntegerReversed, "Integer reversed addA: %u + addB: %u", encodedSize, kInnerLengthSize);
        return kStatusIntegerReversed;
    }
    if (size != encodedSize + kInnerLengthSize) {  // also a payload that is too short for the length field
        GAK_STATUS(kStatusPpcLengthMismatch, "[GAKPPCIF] receive buffer len:%d, message_len:%d", static_cast<int>(size),
                   static_cast<int>(encodedSize + kInnerLengthSize));
        return kStatusPpcLengthMismatch;
    }
    if (!Decode(payload, encodedSize, msg)) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCIF] RecvMsg() no memory for the message");
        return kStatusMemoryExhausted;
    }
    GAK_INFO("PpcInterface::RecvMsg, size=%u, subpid=%u", EncodedSize(msg), msg.sub_proc_pid());
    if (descriptor.Free() != PPC_OK) {
        GAK_STATUS(kStatusPpcMsgFreeFail, "[GAKPPCIF] RecvMsg() drvPpcFreeMsg fail");
        return kStatusPpcMsgFreeFail;
    }
    return kStatusOk;
}

}  // namespace qel
