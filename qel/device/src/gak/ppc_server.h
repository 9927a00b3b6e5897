#ifndef GAKPPC_PPC_SERVER_H
#define GAKPPC_PPC_SERVER_H

/// @file
/// The daemon's end of PPC.

#include <atomic>
#include <cstdint>

#include "ppc_interface.h"

namespace qel {

/// The daemon's end of PPC: accepts the workers' sessions, receives on each, hands the messages to the daemon's
/// handlers and sends to a worker by device and process id.
///
/// Use: GetInstance; RegPPCSerMsgProcFunc for each message type; CreateServer; then SendData, and JoinAllPPCRcvThreads
/// from time to time; at the end Destroy, which also runs when the process exits. ppcInit (ppc.h) comes before
/// CreateServer. After Destroy the server can be created again.
///
/// Results are status numbers, kStatusOk (0x1011000) for success; every failure is logged. Any thread may call any
/// function, with the exceptions named at the functions. Nothing is raised; what cannot be stored for lack of memory is
/// logged and left out.
///
/// Threads. "ppc_srv_accept" runs AcceptConnection from CreateServer until Destroy, or until the driver reports that
/// the endpoint is gone. "ppc_srv_recv_<n>" runs RecvData for one session; it ends when its session closes, when its
/// worker sends an unacceptable message, when a handler ends it (pthread_exit), or when Destroy has begun. A thread
/// that closed its session is joined when the next one starts or ends, by JoinAllPPCRcvThreads or by Destroy, all
/// others by Destroy; a small entry stays until JoinAllPPCRcvThreads or Destroy. These threads block all asynchronous
/// signals.
///
/// Waking. Destroy wakes the accept thread by stopping the endpoint, and receive threads and blocked senders by
/// shutting their sessions down. A handler that does not return blocks Destroy. So do thread-local objects of handlers
/// that wait when they are destroyed; those hold up accepting and reaping as well.
///
/// Locks. Each table and list of the server has a mutex of its own, which no caller can hold. Nothing waits, joins,
/// logs or calls the daemon under one of them, with one exception: a handler runs under the handlers' mutex, so that
/// one runs at a time. The daemon may therefore hold locks of its own in any call, as long as no handler that the call
/// waits for needs one of them: Destroy waits for all that run, PPCSerMsgProc and RegPPCSerMsgProcFunc for the one that
/// runs.
///
/// Sessions. The session list says which sessions are open. An entry of the session table stays after its session has
/// been closed, and a message to it fails with kStatusPpcSendRecvFail (0x1093037); it never reaches another worker.
class GAKPPC_API PpcServer : public PpcInterface {
public:
    /// @return The one server. Destroy() runs when the process exits.
    static PpcServer& GetInstance();
    ~PpcServer() override;

    /// Listens and starts the accept thread. Does nothing when the server runs already.
    ///
    /// @param serverId  The id that clients connect to, qel::kPpcServerId.
    /// @return kStatusOk (0x1011000);
    ///         kStatusPpcInitFail (0x1093030) or kStatusPpcCreateFail (0x1093031) when the driver fails or the thread
    ///         cannot be started;
    ///         kStatusPpcServerInvalidParam (0x109303D) from inside a handler while the server is being destroyed.
    uint32_t CreateServer(uint32_t serverId);

    /// The accept thread's body, for the server itself.
    ///
    /// @return A status number for the log only.
    uint32_t AcceptConnection();

    /// Enters or overwrites the handle of a worker in the session table.
    ///
    /// @param deviceId    The worker's device.
    /// @param subProcPid  The worker's process id.
    /// @param session     Any pointer is accepted and never dereferenced.
    void SetPpcSession(uint32_t deviceId, uint32_t subProcPid, void* const& session);

    /// Finds the handle of a worker in the session table, for CloseSomeSession() and SendMsg(). It is valid as long as
    /// the table holds it: until the worker is entered with another session, or Destroy(). From then on it is valid
    /// until its session has ended and 4096 more sessions have, as ppc.h says.
    ///
    /// @param deviceId    The worker's device.
    /// @param subProcPid  The worker's process id.
    /// @return The handle, null for a worker never seen, which is then entered with a null handle.
    void* GetPpcSession(uint32_t deviceId, uint32_t subProcPid);

    /// Sends to the worker that `dest_id` and `sub_proc_pid` name. Blocks while its socket is full, until the worker
    /// reads or the session is closed.
    ///
    /// @param msg  The message.
    /// @return kStatusPpcServerInvalidParam (0x109303D) for a `dest_id` above 3 or a `proc_type` above 2;
    ///         kStatusPpcNoSession (0x1093036) for a worker never seen; otherwise what SendMsg() returns.
    uint32_t SendData(const PPCMessage& msg);

    /// Closes a session and takes it off the list. One that is closed already, or unknown, is only logged.
    ///
    /// @param session  The session's handle.
    void CloseSomeSession(void* const& session);

    /// Takes a session off the list without closing it. One that is not listed is only logged.
    ///
    /// @param session  The session's handle.
    void RemoveFromPpcSessionList(void* const& session);

    /// Stops accepting, closes all listed sessions, joins all threads, ends the endpoint and clears the handler and the
    /// session table. Returns when all that is done, also when another thread's call does it; at once when there is no
    /// server, and in a forked child. A handler cannot wait for its own thread: called inside one it does nothing.
    ///
    /// @return kStatusOk (0x1011000); kStatusPpcServerInvalidParam (0x109303D) inside a handler.
    uint32_t Destroy();

    /// A receive thread's body, for the server itself: receives until the session closes.
    ///
    /// @param session       The session's handle.
    /// @param threadNumber  Goes into the thread's name.
    void RecvData(void* const& session, uint64_t threadNumber);

    /// Calls the handler of the message's type, one at a time in the whole server. What a handler raises is caught and
    /// logged; a handler that ends its thread (pthread_exit) is let go, and a receive thread then closes its session.
    /// Handlers must not block for long, and must not call PPCSerMsgProc() or RegPPCSerMsgProcFunc() (deadlock); they
    /// may send, close sessions, their own as well, and call JoinAllPPCRcvThreads().
    ///
    /// @param msg  The message. Handlers may use it until they return.
    void PPCSerMsgProc(const PPCMessage& msg);

    /// Registers a handler until Destroy(). The first one of a type stays. Never from inside a handler.
    ///
    /// @param msgType  The message type, PPCMessage::MsgType.
    /// @param handler  The handler. Null drops the messages of the type.
    void RegPPCSerMsgProcFunc(uint32_t msgType, void (*handler)(const PPCMessage&));

    /// Joins the receive threads that have finished. Does not wait for others, so it may be called from any thread,
    /// handlers among them, and under locks that handlers take; but not by the destructor of a thread-local object of a
    /// handler, whose thread has finished and cannot join itself.
    void JoinAllPPCRcvThreads();

    /// @return Whether the server has been created and not yet destroyed.
    bool IsPPCServerRunning() const;

private:
    template <typename T>
    friend class NoDestructor;
    template <typename T>
    friend class AtExit;
    struct GAKPPC_LOCAL State;
    class GAKPPC_LOCAL Receiver;

    GAKPPC_LOCAL PpcServer();
    GAKPPC_LOCAL void OnProcessExit();
    GAKPPC_LOCAL void StartSession(void* session);
    GAKPPC_LOCAL bool StartReceiveThread(void* session);

    GAKPPC_LOCAL static std::atomic<bool> serverRunningFlag_;
    GAKPPC_LOCAL static std::atomic<bool> serverRecvFlag_;

    State& state_;  // never destroyed: a handler may end the process while other threads are inside the server
};

}  // namespace qel

#endif
