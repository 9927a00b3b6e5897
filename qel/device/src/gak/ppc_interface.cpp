#include "ppc_interface.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "gak_limits.h"
#include "gak_log.h"
#include "memguard.h"
#include "ppc.h"
#include "ppc_record.h"
#include "status_table.h"
#include "tracepoints.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/src/gak/ppc_interface";

// The payload begins with the encoded length, in the host's byte order (the frame's own length field is big-endian).
constexpr uint32_t kInnerLengthSize = 4;
constexpr uint32_t kLargestEncodedSize = 0xFFFFFFFA;  // more, and the payload length would overflow
constexpr uint32_t kLargestPayload = 0x20000000;      // 512 MiB
constexpr uint32_t kClearedSize = 4096;               // all of a usual payload
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
    // Drops a pointer that a failed Alloc has set.
    void Release() { msg_ = nullptr; }
    PpcMsg* Get() const { return msg_; }

private:
    PpcMsg* msg_ = nullptr;
};

uint32_t EncodedSize(const PPCMessage& msg)
{
    return static_cast<uint32_t>(std::min<size_t>(msg.ByteSizeLong(), UINT32_MAX));
}

// Null when the payload is too long or memory runs out. The tail of a long payload is not cleared: every byte is
// written next, and clearing it would double the work.
std::unique_ptr<uint8_t[]> AllocPayload(uint32_t size)
{
    if (size > kLargestPayload) {
        return nullptr;
    }
    std::unique_ptr<uint8_t[]> payload(new (std::nothrow) uint8_t[size]);
    if (payload != nullptr && memset_s(payload.get(), size, 0, std::min(size, kClearedSize)) != 0) {
        return nullptr;
    }
    return payload;
}

// As a tracer is told of it: the daemon's id is no device's. Cold, so that it costs nothing where nobody looks.
__attribute__((cold)) tracepoint::Message Traced(const PPCMessage& msg, PpcSession* session, const void* payload,
                                                 uint32_t size)
{
    const uint32_t device = msg.dest_id() == kPpcServerId ? msg.src_id() : msg.dest_id();
    return {msg.type(),
            device,
            msg.sub_proc_pid(),
            ppc::PpcOriginalFd(session),
            {payload, size, msg.src_id(), msg.dest_id(), static_cast<uint32_t>(msg.proc_type())}};
}

// The payload, which is that of the message, stays the caller's.
uint32_t SendPayload(PpcSession* session, const PPCMessage& msg, uint8_t* payload, uint32_t size)
{
    Descriptor descriptor;
    descriptor.Alloc(session);
    if (descriptor.Get() == nullptr) {
        GAK_STATUS_AS("SendMsg", kStatusPpcMsgAllocFail, "[GAKPPCIF] SendMsg() Alloc memory for PPCMessage fail");
        return kStatusPpcMsgAllocFail;
    }
    if (drvPpcAddMsgBuffer(descriptor.Get(), payload, static_cast<int>(size)) != PPC_OK) {
        GAK_STATUS_AS("SendMsg", kStatusPpcMsgBufferFail, "[GAKPPCIF] SendMsg() add msg buffer fail");
        return kStatusPpcMsgBufferFail;
    }
    GAKPPC_TRACE(message_sending, Traced(msg, session, payload, size));
    const bool isSent = drvPpcSend(session, descriptor.Get(), 0) == PPC_OK;
    GAKPPC_TRACE(message_sent, Traced(msg, session, payload, size), isSent ? kStatusOk : kStatusPpcSendRecvFail);
    if (!isSent) {
        GAK_STATUS_AS("SendMsg", kStatusPpcSendRecvFail, "[GAKPPCIF] SendMsg() Send message buffer fail");
        return kStatusPpcSendRecvFail;
    }
    if (descriptor.Free() != PPC_OK) {
        GAK_STATUS_AS("SendMsg", kStatusPpcMsgFreeFail, "[GAKPPCIF] SendMsg() drvPpcFreeMsg fail");
        return kStatusPpcMsgFreeFail;
    }
    return kStatusOk;
}

// What a receive leaves in its descriptor, which keeps it.
struct Received {
    void* payload = nullptr;
    uint32_t size = 0;
};

uint32_t ReceivePayload(PpcSession* session, Descriptor& descriptor, Received* received)
{
    if (descriptor.Alloc(session) != PPC_OK || descriptor.Get() == nullptr) {
        descriptor.Release();
        GAK_STATUS_AS("RecvMsg", kStatusPpcMsgAllocFail, "[GAKPPCIF] drvPpcAllocMsg fail");
        return kStatusPpcMsgAllocFail;
    }
    uint32_t count = 0;
    const int result = drvPpcRecv(session, descriptor.Get(), kReceiveReserved, 0, &count);
    if (result != PPC_OK) {
        GAK_STATUS_AS("RecvMsg", kStatusWarning, "[GAKPPCIF] drvPpcRecv fail %d", result);
        return result == PPC_ERR_SOCKET_CLOSED ? kStatusPpcSocketClosed : kStatusPpcSendRecvFail;
    }
    if (drvPpcGetMsgBuffer(descriptor.Get(), 0, &received->payload, &received->size) != PPC_OK) {
        GAK_STATUS_AS("RecvMsg", kStatusPpcMsgBufferFail, "[GAKPPCIF] drvPpcGetMsgBuffer fail");
        return kStatusPpcMsgBufferFail;
    }
    if (received->payload == nullptr) {
        GAK_STATUS_AS("RecvMsg", kStatusPpcBufferNull, "[GAKPPCIF] RecvMsg() Message buffer is null");
        return kStatusPpcBufferNull;
    }
    return kStatusOk;
}

// The encoded length at the beginning of a payload; 0 when the payload is too short for it.
uint32_t InnerLength(const void* payload, uint32_t size)
{
    uint32_t length = 0;
    if (size >= kInnerLengthSize) {
        memcpy(&length, payload, kInnerLengthSize);
    }
    return length;
}

// False when memory runs out. A message that cannot be decoded leaves what could be, which is the receiver's to judge.
bool Parse(const void* payload, uint32_t encodedSize, PPCMessage& msg)
{
    try {
        msg.ParseFromArray(static_cast<const uint8_t*>(payload) + kInnerLengthSize, static_cast<int>(encodedSize));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

uint32_t Decode(const Received& received, PPCMessage& msg)
{
    const uint32_t encodedSize = InnerLength(received.payload, received.size);
    if (encodedSize > kLargestEncodedSize) {
        GAK_STATUS_AS("RecvMsg", kStatusIntegerReversed, "Integer reversed addA: %u + addB: %u", encodedSize,
                      kInnerLengthSize);
        return kStatusIntegerReversed;
    }
    if (received.size != encodedSize + kInnerLengthSize) {  // also a payload that is too short for the length field
        GAK_STATUS_AS("RecvMsg", kStatusPpcLengthMismatch, "[GAKPPCIF] receive buffer len:%d, message_len:%d",
                      static_cast<int>(received.size), static_cast<int>(encodedSize + kInnerLengthSize));
        return kStatusPpcLengthMismatch;
    }
    if (!Parse(received.payload, encodedSize, msg)) {
        GAK_STATUS_AS("RecvMsg", kStatusMemoryExhausted, "[GAKPPCIF] RecvMsg() no memory for the message");
        return kStatusMemoryExhausted;
    }
    return kStatusOk;
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
    const std::unique_ptr<uint8_t[]> payload = AllocPayload(size);
    if (payload == nullptr) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCIF] SendMsg() msgBuffer is nullptr error");
        return kStatusMemoryExhausted;
    }
    memcpy(payload.get(), &encodedSize, kInnerLengthSize);
    msg.SerializePartialToArray(payload.get() + kInnerLengthSize, static_cast<int>(encodedSize));
    return SendPayload(static_cast<PpcSession*>(session), msg, payload.get(), size);
}

uint32_t PpcInterface::RecvMsg(void* session, PPCMessage& msg)
{
    Descriptor descriptor;
    Received received;
    auto* const ppcSession = static_cast<PpcSession*>(session);
    uint32_t status = ReceivePayload(ppcSession, descriptor, &received);
    if (status == kStatusOk) {
        status = Decode(received, msg);
        GAKPPC_TRACE(message_received,
                     Traced(status == kStatusOk ? msg : PPCMessage::default_instance(), ppcSession, received.payload,
                            received.size),
                     status);
    }
    if (status != kStatusOk) {
        return status;
    }
    GAK_INFO("PpcInterface::RecvMsg, size=%u, subpid=%u", EncodedSize(msg), msg.sub_proc_pid());
    if (descriptor.Free() != PPC_OK) {
        GAK_STATUS(kStatusPpcMsgFreeFail, "[GAKPPCIF] RecvMsg() drvPpcFreeMsg fail");
        return kStatusPpcMsgFreeFail;
    }
    return kStatusOk;
}

}  // namespace qel
