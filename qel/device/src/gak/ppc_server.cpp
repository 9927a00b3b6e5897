#include "ppc_server.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <new>

#include "at_exit.h"
#include "gak_limits.h"
#include "gak_log.h"
#include "library_thread.h"
#include "ppc.h"
#include "ppc_record.h"
#include "ppc_server_state.h"
#include "status_table.h"
#include "tracepoints.h"

namespace qel {

std::atomic<bool> PpcServer::serverRunningFlag_{false};
std::atomic<bool> PpcServer::serverRecvFlag_{false};

PpcServer& PpcServer::GetInstance()
{
    static NoDestructor<PpcServer> instance;
    static const AtExit<PpcServer> atExit(*instance);
    return *instance;
}

PpcServer::PpcServer() : state_(State::Instance()) {}

PpcServer::~PpcServer()
{
    OnProcessExit();
}

void PpcServer::OnProcessExit()
{
    if (state_.BelongsToParent()) {
        return;
    }
    GAK_INFO_AS("~PpcServer", "PpcServer::~PpcServer() destructor function called");
    Destroy();
}

// ---- Life cycle ----

uint32_t PpcServer::CreateServer(uint32_t serverId)
{
    if (serverRunningFlag_) {
        return kStatusOk;
    }
    if (HandlerTable::IsInsideHandler()) {
        GAK_STATUS(kStatusPpcServerInvalidParam, "[GAKPPCSER] CreateServer() called inside a handler, nothing done");
        return kStatusPpcServerInvalidParam;
    }
    const LifeCycleChange change(state_.lifeCycle);
    if (serverRunningFlag_) {
        return kStatusOk;  // another thread was first
    }
    state_.serverId = serverId;
    int result = drvPpcInit();
    if (result != PPC_OK) {
        GAK_STATUS(kStatusPpcInitFail, "[GAKPPCSER] drvPpcInit return %d", result);
        return kStatusPpcInitFail;
    }
    auto* server = static_cast<PpcServerHead*>(state_.server.load());
    result = drvPpcServerCreate(static_cast<int>(serverId), &server);
    state_.owner = getpid();
    state_.server = server;
    if (result != PPC_OK || server == nullptr) {
        GAK_STATUS(kStatusPpcCreateFail, "[GAKPPCSER] drvPpcServerCreate return %d", result);
        return kStatusPpcCreateFail;
    }
    return state_.StartAccepting(*this);
}

uint32_t PpcServer::State::StartAccepting(PpcServer& ppcServer)
{
    serverRunningFlag_ = true;
    try {
        acceptThread = StartLibraryThread([&ppcServer] { ppcServer.AcceptConnection(); });
    } catch (const std::exception& error) {
        serverRunningFlag_ = false;
        GAK_STATUS_AS("CreateServer", kStatusPpcCreateFail, "[GAKPPCSER] accept thread can not be started: %s",
                      error.what());
        drvPpcServerDestroy(static_cast<PpcServerHead*>(server.load()));
        server = nullptr;
        return kStatusPpcCreateFail;
    }
    GAK_INFO_AS("CreateServer", "[GAKPPCSER] [serverId=%u] ppcserver receive thread started succ", serverId.load());
    GAKPPC_TRACE(server_created, serverId.load());
    return kStatusOk;
}

uint32_t PpcServer::Destroy()
{
    if (state_.server == nullptr || state_.BelongsToParent()) {
        return kStatusOk;
    }
    if (HandlerTable::IsInsideHandler()) {
        GAK_STATUS(kStatusPpcServerInvalidParam, "[GAKPPCSER] Destroy() called inside a handler, nothing done");
        return kStatusPpcServerInvalidParam;
    }
    const LifeCycleChange change(state_.lifeCycle);
    void* const server = state_.server;
    if (server == nullptr) {
        return kStatusOk;  // another thread was first
    }
    state_.ClearFlags();
    GAK_INFO("[GAKPPCSER] Destory ppc sever [serverId=%u] [pid=%u]", state_.serverId.load(),
             static_cast<uint32_t>(getpid()));
    // Accepting ends before any session is closed: a session that came in between would not be listed yet, would never
    // be closed, and the join of its receive thread would never return.
    ppc::PpcStopAccept(server);
    if (state_.acceptThread.joinable()) {
        state_.acceptThread.join();
    }
    state_.CloseListedSessions();
    state_.receiveThreads.JoinAll();
    if (drvPpcServerDestroy(static_cast<PpcServerHead*>(server)) != PPC_OK) {
        GAK_STATUS(kStatusPpcDestroyFail, "[GAKPPCSER] Destory ppc sever failed");
    }
    state_.handlers.Clear();
    state_.sessionTable.Clear();
    GAKPPC_TRACE(server_destroyed, state_.serverId.load());
    state_.server = nullptr;  // last: from now on other calls of Destroy return at once
    return kStatusOk;
}

bool PpcServer::IsPPCServerRunning() const
{
    return serverRunningFlag_;
}

bool PpcServer::State::SetRecvFlag()
{
    MutexLock lock(flagMutex);
    if (serverRunningFlag_) {
        serverRecvFlag_ = true;
    }
    return serverRunningFlag_;
}

void PpcServer::State::ClearFlags()
{
    MutexLock lock(flagMutex);
    serverRunningFlag_ = false;
    serverRecvFlag_ = false;
}

// ---- Accepting ----

uint32_t PpcServer::AcceptConnection()
{
    prctl(PR_SET_NAME, "ppc_srv_accept");
    while (serverRunningFlag_) {
        PpcSession* session = nullptr;
        const int result = drvPpcSessionAccept(static_cast<PpcServerHead*>(state_.server.load()), &session);
        if (!serverRunningFlag_ || (result == PPC_OK && !state_.SetRecvFlag())) {
            GAK_INFO("[GAKPPCSER] accept connection runningflag has been set false, drvRet = %u",
                     static_cast<uint32_t>(result));
            if (result == PPC_OK) {
                drvPpcSessionClose(session);
            }
            return kStatusOk;
        }
        if (result == PPC_OK) {
            StartSession(session);
            continue;
        }
        GAK_INFO("[GAKPPCSER] drvPpcSessionAccept() [return:%u] continue", static_cast<uint32_t>(result));
        if (result == PPC_ERR_SOCKET_CLOSED) {
            GAK_STATUS(kStatusPpcSocketClosed, "[GAKPPCSER] drvPpcSessionAccept receive socket close msg,server exit");
            return kStatusPpcSocketClosed;
        }
    }
    return kStatusOk;
}

void PpcServer::StartSession(void* session)
{
    if (state_.AddPending(session) && StartReceiveThread(session)) {
        state_.sessions.ListPending(session);
        return;
    }
    state_.sessions.Remove(session);
    drvPpcSessionClose(static_cast<PpcSession*>(session));
}

bool PpcServer::State::AddPending(void* session)
{
    try {
        sessions.AddPending(ppc::PpcSessionRef(session));
        return true;
    } catch (const std::bad_alloc&) {
        GAK_STATUS_AS("AcceptConnection", kStatusMemoryExhausted,
                      "[GAKPPCSER] no memory for the session, session closed");
        return false;
    }
}

bool PpcServer::StartReceiveThread(void* session)
{
    try {
        // The thread holds the session's record for its whole life: others may end the session between two receives.
        state_.receiveThreads.Start([this, held = ppc::PpcSessionRef(session)](uint64_t number) {
            void* const handle = held.Get();
            RecvData(handle, number);
        });
        return true;
    } catch (const std::exception& error) {
        GAK_STATUS_AS("AcceptConnection", kStatusMemoryExhausted,
                      "[GAKPPCSER] receive thread can not be started, session closed: %s", error.what());
        return false;
    }
}

// ---- Sessions ----

void PpcServer::SetPpcSession(uint32_t deviceId, uint32_t subProcPid, void* const& session)
{
    GAK_INFO("[PpcServer] SetPpcSession, deviceId:%u, subProcPid:%u", deviceId, subProcPid);
    try {
        state_.sessionTable.Set(deviceId, subProcPid, session);
    } catch (const std::bad_alloc&) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCSER] SetPpcSession() no memory for deviceId:%u, subProcPid:%u",
                   deviceId, subProcPid);
    }
}

// Null also when there is no memory for a new entry.
ppc::PpcSessionRef PpcServer::State::GetPpcSession(uint32_t deviceId, uint32_t subProcPid)
{
    GAK_INFO("[PpcServer] GetPpcSession, deviceId:%u, subProcPid:%u", deviceId, subProcPid);
    try {
        return sessionTable.Find(deviceId, subProcPid);
    } catch (const std::bad_alloc&) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCSER] GetPpcSession() no memory for deviceId:%u, subProcPid:%u",
                   deviceId, subProcPid);
        return {};
    }
}

void* PpcServer::GetPpcSession(uint32_t deviceId, uint32_t subProcPid)
{
    return state_.GetPpcSession(deviceId, subProcPid).Get();
}

uint32_t PpcServer::SendData(const PPCMessage& msg)
{
    if (msg.dest_id() >= MAX_DEVNUM_PER_OS) {
        GAK_STATUS(kStatusPpcServerInvalidParam,
                   "[GAKPPCSER] GetPpcSession() deviceId >= MAX_DEVNUM_PER_OS invalid param");
        return kStatusPpcServerInvalidParam;
    }
    if (static_cast<int32_t>(msg.proc_type()) > PPCMessage::CUSTOM_COMPUTE) {
        GAK_STATUS(kStatusPpcServerInvalidParam, "[GAKPPCSER] GetPpcSession() proctype > CUSTOM_COMPUTE invalid param");
        return kStatusPpcServerInvalidParam;
    }
    // Held while sending: the table may get another session for this worker meanwhile.
    const ppc::PpcSessionRef session = state_.GetPpcSession(msg.dest_id(), msg.sub_proc_pid());
    if (session.Get() == nullptr) {
        GAK_STATUS(kStatusPpcNoSession,
                   "[GAKPPCSER] SendData() failed, session not exist deviceId:%u procType:%u(0:ZOLT,1:COMPUTE,"
                   "2:CUSTOM_COMPUTE)",
                   msg.dest_id(), static_cast<uint32_t>(msg.proc_type()));
        return kStatusPpcNoSession;
    }
    return SendMsg(session.Get(), msg);
}

void PpcServer::CloseSomeSession(void* const& session)
{
    if (drvPpcSessionClose(static_cast<PpcSession*>(session)) != PPC_OK) {
        GAK_STATUS(kStatusPpcCloseFail, "[GAKPPCSER] CloseSomeSession ppc session failed");
        return;
    }
    RemoveFromPpcSessionList(session);
}

void PpcServer::RemoveFromPpcSessionList(void* const& session)
{
    const SessionList::Removal removal = state_.sessions.Remove(session);
    GAK_INFO("[GAKPPCSER] CloseSomeSession enter [sessionSize:%zu]", removal.sizeBefore);
    if (!removal.found) {
        GAK_STATUS(kStatusPpcCloseFail, "[GAKPPCSER] CloseSomeSession session is not exist");
        return;
    }
    GAK_INFO("[GAKPPCSER] CloseSomeSession exit [sessionSize:%zu]", removal.sizeBefore - 1);
}

void PpcServer::State::CloseListedSessions()
{
    for (const ppc::PpcSessionRef& session : sessions.TakeAll()) {
        const int result = drvPpcSessionClose(static_cast<PpcSession*>(session.Get()));
        GAK_INFO_AS("Destroy", "[GAKPPCSER] Destory ppc session serverId_=%u", serverId.load());
        if (result != PPC_OK) {
            GAK_STATUS_AS("Destroy", kStatusPpcDestroyFail, "[GAKPPCSER] Destory ppc session failed");
        }
    }
}

}  // namespace qel
