#ifndef GAKPPC_PPC_CLIENT_H
#define GAKPPC_PPC_CLIENT_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "gak.h"
#include "ppc_interface.h"

namespace qel {

// The worker's end of PPC: one session for each (device, process type) to the daemon's server, opened on first use and
// kept until Destroy, and the loop that waits for the daemon's orders. Workers normally use the functions of gak.h.
//
// Results are status numbers, 0x1011000 for success. Any thread may call any function, also while another one is in
// Destroy or the process exits. No thread is started: a worker's own thread receives (RecvData), one at a time on each
// session, and any number of others send. Nothing is raised but std::system_error when a mutex cannot be
// locked.
//
// Locks: each mutex is held alone. The session mutex is held over a connect and over the tear-down of all sessions,
// never while sending or receiving. Blocked threads are woken as follows: a receive or a send by Destroy, which shuts
// its session down; a wait for the custom process by the receive loop, and by nothing else.
class GAKPPC_API PpcClient : public PpcInterface {
public:
    // The one client, never null. Destroy runs when the process exits.
    static PpcClient* GetInstance();
    ~PpcClient() override;

    // The session of the device and process type, connected on first use; null when that fails. The client keeps it.
    // Device numbers of 4 and more share the sessions of the number modulo 4.
    void* GetPpcSession(uint32_t deviceId, PPCMessage::ProcessType procType);

    // SendMsg on `session`.
    uint32_t SendData(void*& session, const PPCMessage& msg);

    // The receive loop: blocks until a message ends it (see RecvMsgProc), receiving fails, or the client is destroyed
    // (0x1093040, or the status of the receive that it ended). After Destroy it opens no session and returns 0x1093040
    // at once; sending or GetPpcSession starts over.
    uint32_t RecvData(uint32_t deviceId, GakWaitType waitType);

    // Handles one received message. 0x109303E means that the loop goes on. A SHUTDOWN whose dest_id is `deviceId` is
    // answered on `session` and gives the status of the answer. A START_RSP of the custom process wakes the threads
    // that wait for it.
    uint32_t RecvMsgProc(uint32_t deviceId, void*& session, const PPCMessage::ProcessType& procType,
                         const PPCMessage& msg);

    // Ends all sessions; threads blocked in them return soon, and nobody waits for them. Does nothing when there is no
    // session, and in a forked child. The next GetPpcSession, also one for a message to send, starts over.
    void Destroy();

    // 0, 1 and 2 are the process type of that number, all others MAXPROCTYPE.
    PPCMessage::ProcessType GetPPCProcessType(GakWaitType waitType);

    // Sends a message of type `msgType`. Wait types up to 3 as signed numbers are accepted: 0 goes out as ZOLT, 2 as
    // CUSTOM_COMPUTE, all others as COMPUTE. Device numbers above 3 and other wait types give 0x109303C.
    uint32_t SendPpcMsg(uint32_t deviceId, GakWaitType waitType, PPCMessage::MsgType msgType);

    // What the functions of gak.h call.
    uint32_t GakWaitForShutdownProc(uint32_t deviceId, GakWaitType waitType);
    uint32_t SendHeartbeat(uint32_t deviceId, GakWaitType waitType);
    uint32_t SendAbnormalMsg(uint32_t deviceId, GakWaitType waitType);
    uint32_t CreateOrFindCustPid(std::vector<std::string>& libNames, uint32_t hostPid);

private:
    template <typename T>
    friend class NoDestroy;
    template <typename T>
    friend class ProcessExit;
    struct GAKPPC_LOCAL State;
    struct GAKPPC_LOCAL Report;

    GAKPPC_LOCAL PpcClient();
    GAKPPC_LOCAL void OnProcessExit();
    GAKPPC_LOCAL uint32_t SendReport(const Report& report, uint32_t deviceId, GakWaitType waitType);

    // Whether the client runs: raised with every new session, lowered by Destroy.
    GAKPPC_LOCAL static std::atomic<bool> clientRecvFlag_;

    State& state_;  // never destroyed: threads may be inside the client while the process exits
};

}  // namespace qel

#endif
