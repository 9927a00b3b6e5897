#ifndef GAKPPC_PPC_CLIENT_H
#define GAKPPC_PPC_CLIENT_H

/// @file
/// The worker's end of PPC.

#include <cstdint>
#include <string>
#include <vector>

#include "gak.h"
#include "ppc_interface.h"

namespace qel {

/// The worker's end of PPC: one session for each (device, process type) to the daemon's server, opened on first use and
/// kept until Destroy, and the loop that waits for the daemon's orders. Workers normally use the functions of gak.h.
///
/// Results are status numbers, kStatusOk (0x1011000) for success. Any thread may call any function, also while another
/// one is in Destroy or the process exits. No thread is started: a worker's own thread receives (RecvData), one at a
/// time on each session, and any number of others send. Nothing is raised.
///
/// Locks: each mutex is held alone. That of the sessions is held over a connect, and no mutex while sending, receiving,
/// logging or ending a session. Blocked threads are woken as follows: a receive or a send by Destroy, which shuts its
/// session down; a wait for the custom process by the receive loop, and by nothing else.
class GAKPPC_API PpcClient : public PpcInterface {
public:
    /// @return The one client, never null. Destroy() runs when the process exits.
    static PpcClient* GetInstance();
    ~PpcClient() override;

    /// Finds the session of a device and process type, or connects it on first use.
    ///
    /// @param deviceId  The device. Numbers of 4 and more share the sessions of the number modulo 4.
    /// @param procType  The process type.
    /// @return The session, which stays the client's; null when it cannot be connected. The handle is valid until
    ///         Destroy(). After that it stays safe to use as ppc.h says of ended sessions: calls with it fail,
    ///         SendMsg() with kStatusPpcSendRecvFail (0x1093037).
    void* GetPpcSession(uint32_t deviceId, PPCMessage::ProcessType procType);

    /// SendMsg() on a session.
    ///
    /// @param session  The session.
    /// @param msg      The message.
    /// @return What SendMsg() returns.
    uint32_t SendData(void*& session, const PPCMessage& msg);

    /// The receive loop: blocks until a message ends it (see RecvMsgProc()), receiving fails, or the client is
    /// destroyed. After Destroy() it opens no session and returns at once; sending or GetPpcSession() starts over.
    ///
    /// @param deviceId  The device.
    /// @param waitType  The process type, as GetPPCProcessType() reads it.
    /// @return What RecvMsgProc() returned;
    ///         what RecvMsg() returned when receiving failed, kStatusPpcMsgAllocFail (0x1093039) when there is no
    ///         connection;
    ///         kStatusPpcRecvFail (0x1093040) while the client has no session at all and after Destroy(), or the status
    ///         of the receive that Destroy() ended.
    uint32_t RecvData(uint32_t deviceId, GakWaitType waitType);

    /// Handles one received message. A SHUTDOWN whose `dest_id` is the device is answered. A START_RSP of the custom
    /// process wakes the threads that wait for it.
    ///
    /// @param deviceId  The device that the loop is for.
    /// @param session   The session that the answer goes to.
    /// @param procType  The process type that goes into the answer.
    /// @param msg       The message.
    /// @return kStatusPpcClientNotExpected (0x109303E) when the loop continues; otherwise what SendMsg() returned for
    /// the
    ///         answer.
    uint32_t RecvMsgProc(uint32_t deviceId, void*& session, const PPCMessage::ProcessType& procType,
                         const PPCMessage& msg);

    /// Ends all sessions; threads blocked in them return soon and are not waited for. Does nothing when there is no
    /// session, and in a forked child. The next GetPpcSession(), also one for a message to send, starts over.
    void Destroy();

    /// Reads a wait type for the receive loop.
    ///
    /// @param waitType  The wait type.
    /// @return The process type of that number, MAXPROCTYPE for numbers above 2.
    PPCMessage::ProcessType GetPPCProcessType(GakWaitType waitType);

    /// Sends a message that has nothing in it but its sender.
    ///
    /// @param deviceId  The device, 0 to 3.
    /// @param waitType  Accepted up to 3 as a signed number: 0 is sent as ZOLT, 2 as CUSTOM_COMPUTE, all others as
    ///                  COMPUTE.
    /// @param msgType   The message type.
    /// @return kStatusPpcClientInvalidParam (0x109303C) for another device or wait type; otherwise what SendMsg()
    ///         returns, kStatusPpcNoSession (0x1093036) when there is no connection.
    uint32_t SendPpcMsg(uint32_t deviceId, GakWaitType waitType, PPCMessage::MsgType msgType);

    /// What ::GakWaitForShutdown calls: START_RSP, then RecvData().
    ///
    /// @param deviceId  The device.
    /// @param waitType  The process type.
    /// @return kStatusPpcCreateFail (0x1093031) when START_RSP could not be sent; otherwise what RecvData() returns.
    uint32_t GakWaitForShutdownProc(uint32_t deviceId, GakWaitType waitType);

    /// What ::GakHeartbeatSend calls.
    ///
    /// @param deviceId  The device.
    /// @param waitType  The process type.
    /// @return kStatusOk (0x1011000), or kStatusPpcCreateFail (0x1093031) when it could not be sent.
    uint32_t SendHeartbeat(uint32_t deviceId, GakWaitType waitType);

    /// What ::GakDestory calls.
    ///
    /// @param deviceId  The device.
    /// @param waitType  The process type.
    /// @return kStatusOk (0x1011000), or kStatusPpcCreateFail (0x1093031) when it could not be sent.
    uint32_t SendAbnormalMsg(uint32_t deviceId, GakWaitType waitType);

    /// What ::CreateOrFindCustPid calls.
    ///
    /// @param libNames  The names of the libraries.
    /// @param hostPid   The host process.
    /// @return kStatusPpcCreateFail (0x1093031), at once, when this process has sent nothing before or memory runs out;
    ///         otherwise, after the wait, what SendMsg() returned.
    uint32_t CreateOrFindCustPid(std::vector<std::string>& libNames, uint32_t hostPid);

private:
    template <typename T>
    friend class NoDestructor;
    template <typename T>
    friend class AtExit;
    struct GAKPPC_LOCAL State;
    struct GAKPPC_LOCAL Report;

    GAKPPC_LOCAL PpcClient();
    GAKPPC_LOCAL void OnProcessExit();
    GAKPPC_LOCAL uint32_t SendReport(const Report& report, uint32_t deviceId, GakWaitType waitType);

    State& state_;  // never destroyed: threads may be inside the client while the process exits
};

}  // namespace qel

#endif
