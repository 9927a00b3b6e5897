#ifndef GAKPPC_PPC_INTERFACE_H
#define GAKPPC_PPC_INTERFACE_H

/// @file
/// The codec between messages and the transport driver.

#include <cstdint>

#include "gakppc_export.h"
#include "qel_message.pb.h"

namespace qel {

/// The codec: carries one PPCMessage over one session of the transport driver. A message's payload is its encoded
/// length, 4 bytes in the host's byte order, and the encoding.
///
/// Results are status numbers, kStatusOk (0x1011000) for success; every failure is logged. Nothing is raised. The
/// functions keep no state: any thread may call them, any number of threads may send on one session at once, one thread
/// at a time may receive on it. The session stays its owner's and may be ended while a call is in flight, which then
/// fails.
class GAKPPC_API PpcInterface {
public:
    /// Without state.
    PpcInterface();
    virtual ~PpcInterface();
    /// Not copied: what derives from it owns connections.
    PpcInterface(const PpcInterface&) = delete;
    /// Not copied: what derives from it owns connections.
    PpcInterface& operator=(const PpcInterface&) = delete;

    /// Encodes and sends one message. Blocks until the kernel has taken the whole frame.
    ///
    /// @param session  The session.
    /// @param msg      The message.
    /// @return kStatusOk (0x1011000);
    ///         kStatusPpcNoSession (0x1093036) for a null session;
    ///         kStatusMemoryExhausted (0x1013007) without memory and for a message of more than 512 MiB less 4 bytes,
    ///         kStatusIntegerReversed (0x1013008) for one that has no length (4 GiB): nothing was sent;
    ///         kStatusPpcMsgAllocFail (0x1093039), kStatusPpcMsgBufferFail (0x1093034) or
    ///         kStatusPpcMsgFreeFail (0x1093038) when the driver refuses the descriptor, its buffer or its release;
    ///         kStatusPpcSendRecvFail (0x1093037) when sending failed, also because the session has been ended.
    uint32_t SendMsg(void* session, const PPCMessage& msg);

    /// Blocks until one frame arrives and decodes it.
    ///
    /// @param session  The session.
    /// @param msg      Takes the message. What cannot be decoded is not an error: it then holds what could. Keeps its
    ///                 former content when nothing was decoded.
    /// @return kStatusOk (0x1011000);
    ///         kStatusPpcSocketClosed (0x109303F) when the peer closed before a frame;
    ///         kStatusPpcSendRecvFail (0x1093037) when receiving failed;
    ///         kStatusPpcMsgAllocFail (0x1093039), kStatusPpcMsgBufferFail (0x1093034) or
    ///         kStatusPpcMsgFreeFail (0x1093038) when the driver refuses the descriptor (also for a null session), its
    ///         buffer or its release;
    ///         kStatusPpcBufferNull (0x109303B) for a frame of length 0;
    ///         kStatusIntegerReversed (0x1013008) or kStatusPpcLengthMismatch (0x109303A) for an encoded length that
    ///         does not fit the payload;
    ///         kStatusMemoryExhausted (0x1013007) when memory runs out.
    uint32_t RecvMsg(void* session, PPCMessage& msg);
};

}  // namespace qel

#endif
