#include "ppc_server.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "at_exit.h"
#include "gak_limits.h"
#include "gak_log.h"
#include "handler_table.h"
#include "library_thread.h"
#include "mutex.h"
#include "no_destructor.h"
#include "ppc.h"
#include "ppc_record.h"
#include "receive_threads.h"
#include "session_list.h"
#include "session_table.h"
#include "status_table.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/src/gak/ppc_server.cpp";
constexpr char kReaper[] = "JoinAllPPCRcvThreads";

// What a receive thread reports of a session that closed before its first message.
constexpr uint32_t kNoDevice = MAX_DEVNUM_PER_OS;
constexpr uint32_t kNoProcessType = PPCMessage::MAXPROCTYPE;

#define GAKPPC_MSG_TYPES \
    "(0:START RSP,1:SHUTDOWN RSP,2:HEARTBEAT,3:NOTIFY_VEXOINFO,4:ABNORMAL,5:SHUTDOWN,6:SOCKET_CLOSE)"

void NameThisThread(const char* name)
{
    prctl(PR_SET_NAME, name);
}

// As a stream prints it; empty when memory runs out, because threads log this on their way out.
std::string ThreadIdText(std::thread::id id)
{
    try {
        std::ostringstream text;
        text << id;
        return text.str();
    } catch (const std::exception&) {
        return {};
    }
}

// The search for each thread among those that had ended, until none of those is left.
void LogReapedThreads(const std::vector<ReceiveThreads::Record>& threads, std::vector<ReceiveThreads::Record> ended)
{
    size_t threadSize = threads.size();
    for (auto thread = threads.begin(); thread != threads.end() && !ended.empty(); ++thread) {
        GAK_INFO_AS(kReaper, "[GAKPPCSER] JoinAllPPCRcvThreads() [ppc tid=%s] [threadSize=%zu] [freeThreadSize=%zu]",
                    ThreadIdText(thread->id).c_str(), threadSize, ended.size());
        const auto found = std::find_if(ended.begin(), ended.end(), [thread](const ReceiveThreads::Record& candidate) {
            GAK_INFO_AS(kReaper, "[GAKPPCSER] JoinAllPPCRcvThreads() [free tid=%s]",
                        ThreadIdText(candidate.id).c_str());
            return candidate.serial == thread->serial;
        });
        if (found == ended.end()) {
            GAK_INFO_AS(kReaper, "[GAKPPCSER] JoinAllPPCRcvThreads() Not find free tid");
            continue;
        }
        GAK_INFO_AS(kReaper, "[GAKPPCSER] JoinAllPPCRcvThreads() Find free tid and joinable");
        ended.erase(found);
        --threadSize;
    }
}

// A worker's message that the server does not take ends its receive thread.
bool IsAcceptable(const PPCMessage& msg)
{
    if (msg.src_id() >= MAX_DEVNUM_PER_OS) {
        GAK_STATUS_AS("RecvData", kStatusPpcServerInvalidParam,
                      "[GAKPPCSER] RecvData() srcDevId >= MAX_DEVNUM_PER_OS invalid param");
        return false;
    }
    if (static_cast<int32_t>(msg.proc_type()) > PPCMessage::CUSTOM_COMPUTE) {
        // CUSTOM_COMPUTE passes although the text names COMPUTE.
        GAK_STATUS_AS("RecvData", kStatusPpcServerInvalidParam,
                      "[GAKPPCSER] RecvData() proctype > COMPUTE invalid param");
        return false;
    }
    if (static_cast<int32_t>(msg.type()) > PPCMessage::ABNORMAL) {
        GAK_STATUS_AS("RecvData", kStatusPpcServerInvalidParam,
                      "[GAKPPCSER] RecvData() msgType > ABNORMAL invalid param");
        return false;
    }
    return true;
}

void LogHandlerFailure(uint32_t type, const std::exception_ptr& failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        GAK_STATUS_AS("PPCSerMsgProc", kStatusWarning, "[GAKPPCSER] PPCSerMsgProc handler of msg type: %u failed: %s",
                      type, error.what());
    } catch (...) {
        GAK_STATUS_AS("PPCSerMsgProc", kStatusWarning, "[GAKPPCSER] PPCSerMsgProc handler of msg type: %u failed",
                      type);
    }
}

}  // namespace

struct PpcServer::State {
    static State& Instance()
    {
        static NoDestructor<State> state;
        return *state;
    }

    // Self-synchronised.
    std::atomic<void*> server{nullptr};  // written under the life-cycle mutex; null means that no server exists
    std::atomic<uint32_t> serverId_{0};
    std::atomic<pid_t> owner{0};  // the process that created the server

    Mutex lifeCycleMutex;
    std::thread acceptThread GAKPPC_GUARDED_BY(lifeCycleMutex);

    // Raising serverRecvFlag_ and lowering both flags: an accept must not raise it again behind Destroy.
    Mutex flagMutex;

    SessionList sessions;
    SessionTable sessionTable;
    HandlerTable handlers;
    ReceiveThreads receiveThreads;

    bool BelongsToParent() const { return server != nullptr && owner != getpid(); }

    bool RaiseRecvFlag();
    void LowerFlags();

    bool AddPending(void* session);
    void CloseListedSessions();

    ppc::PpcSessionRef GetPpcSession(uint32_t deviceId, uint32_t subProcPid);
};

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
    MutexLock lifeCycle(state_.lifeCycleMutex);
    if (serverRunningFlag_) {
        return kStatusOk;  // another thread was first
    }
    state_.serverId_ = serverId;
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
    serverRunningFlag_ = true;
    try {
        state_.acceptThread = StartLibraryThread([this] { AcceptConnection(); });
    } catch (const std::exception& error) {
        serverRunningFlag_ = false;
        GAK_STATUS(kStatusPpcCreateFail, "[GAKPPCSER] accept thread can not be started: %s", error.what());
        drvPpcServerDestroy(server);
        state_.server = nullptr;
        return kStatusPpcCreateFail;
    }
    GAK_INFO("[GAKPPCSER] [serverId=%u] ppcserver receive thread started succ", serverId);
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
    MutexLock lifeCycle(state_.lifeCycleMutex);
    void* server = state_.server;
    if (server == nullptr) {
        return kStatusOk;  // another thread was first
    }
    state_.LowerFlags();
    GAK_INFO("[GAKPPCSER] Destory ppc sever [serverId=%u] [pid=%u]", state_.serverId_.load(),
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
    state_.server = nullptr;
    state_.handlers.Clear();
    state_.sessionTable.Clear();
    return kStatusOk;
}

bool PpcServer::IsPPCServerRunning() const
{
    return serverRunningFlag_;
}

// False when the server is being destroyed.
bool PpcServer::State::RaiseRecvFlag()
{
    MutexLock lock(flagMutex);
    if (serverRunningFlag_) {
        serverRecvFlag_ = true;
    }
    return serverRunningFlag_;
}

void PpcServer::State::LowerFlags()
{
    MutexLock lock(flagMutex);
    serverRunningFlag_ = false;
    serverRecvFlag_ = false;
}

// ---- Accepting ----

uint32_t PpcServer::AcceptConnection()
{
    NameThisThread("ppc_srv_accept");
    while (serverRunningFlag_) {
        PpcSession* session = nullptr;
        const int result = drvPpcSessionAccept(static_cast<PpcServerHead*>(state_.server.load()), &session);
        if (!serverRunningFlag_ || (result == PPC_OK && !state_.RaiseRecvFlag())) {
            GAK_INFO("[GAKPPCSER] accept connection runningflag has been set false, drvRet = %u",
                     static_cast<uint32_t>(result));
            if (result == PPC_OK) {
                drvPpcSessionClose(session);
            }
            return kStatusOk;
        }
        if (result != PPC_OK) {
            GAK_INFO("[GAKPPCSER] drvPpcSessionAccept() [return:%u] continue", static_cast<uint32_t>(result));
            if (result == PPC_ERR_SOCKET_CLOSED) {
                GAK_STATUS(kStatusPpcSocketClosed,
                           "[GAKPPCSER] drvPpcSessionAccept receive socket close msg,server exit");
                return kStatusPpcSocketClosed;
            }
            continue;
        }
        if (state_.AddPending(session) && StartReceiveThread(session)) {
            state_.sessions.ListPending(session);
        } else {
            state_.sessions.Remove(session);
            drvPpcSessionClose(session);
        }
    }
    return kStatusOk;
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
        GAK_INFO_AS("Destroy", "[GAKPPCSER] Destory ppc session serverId_=%u", serverId_.load());
        if (result != PPC_OK) {
            GAK_STATUS_AS("Destroy", kStatusPpcDestroyFail, "[GAKPPCSER] Destory ppc session failed");
        }
    }
}

// ---- Receiving ----

void PpcServer::RecvData(void* const& session, uint64_t threadNumber)
{
    char threadName[40];
    snprintf(threadName, sizeof(threadName), "ppc_srv_recv_%" PRIu64, threadNumber);
    NameThisThread(threadName);
    PPCMessage msg;
    if (!serverRecvFlag_) {
        return;
    }
    uint32_t lastDevice = kNoDevice;
    uint32_t lastProcessType = kNoProcessType;
    uint32_t status = GetInstance().RecvMsg(session, msg);
    while (status == kStatusOk) {
        lastDevice = msg.src_id();
        lastProcessType = static_cast<uint32_t>(msg.proc_type());
        if (!IsAcceptable(msg)) {
            return;
        }
        SetPpcSession(msg.src_id(), msg.sub_proc_pid(), session);
        PPCSerMsgProc(msg);
        GAK_STATUS(kStatusOk,
                   "[GAKPPCSER] ##### [threadName:%s] RecvData [ret=%u] Save [device index in os:%u] "
                   "[notifyProcType:%u]####",
                   threadName, status, lastDevice, lastProcessType);
        if (!serverRecvFlag_) {
            return;
        }
        status = GetInstance().RecvMsg(session, msg);
    }
    ReportSocketClosed(status, lastDevice, lastProcessType, msg);
    CloseSomeSession(session);
    GAK_EVENT("[GAKPPCSER] [threadName:%s] RecvData [ret=%u] [tid=%s]thread exit", threadName, status,
              ThreadIdText(std::this_thread::get_id()).c_str());
    state_.receiveThreads.ReportEnd();
}

// Tells the daemon that the peer has gone, by a message that no worker can send. Other failures are only logged.
void PpcServer::ReportSocketClosed(uint32_t status, uint32_t lastDevice, uint32_t lastProcessType, PPCMessage& msg)
{
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 0 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret=[%u]?[%u]GAK to clean",
                 lastDevice, lastProcessType, status, kStatusPpcSocketClosed);
    if (status != kStatusPpcSocketClosed) {
        return;
    }
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 1 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret[%u] GAK to clean",
                 lastDevice, lastProcessType, status);
    // All other fields keep what the last received message brought, so that the daemon can tell which worker it was.
    msg.set_type(PPCMessage::SOCKET_CLOSE);
    msg.set_src_id(lastDevice);
    msg.set_dest_id(kPpcServerId);
    msg.set_proc_type(static_cast<PPCMessage::ProcessType>(lastProcessType));
    PPCSerMsgProc(msg);
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 2 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret[%u] GAK to clean",
                 lastDevice, lastProcessType, kStatusPpcSocketClosed);
}

void PpcServer::PPCSerMsgProc(const PPCMessage& msg)
{
    const auto type = static_cast<uint32_t>(msg.type());
    GAK_INFO("[GAKPPCSER] PPCSerMsgProc msg type: %u", type);
    const HandlerTable::Outcome outcome = state_.handlers.Dispatch(msg);
    if (!outcome.found) {
        GAK_INFO("[GAKPPCSER] PPCSerMsgProc msg type:%u" GAKPPC_MSG_TYPES " processFunc not exist", type);
    }
    if (outcome.failure != nullptr) {
        LogHandlerFailure(type, outcome.failure);
    }
}

void PpcServer::RegPPCSerMsgProcFunc(uint32_t msgType, void (*handler)(const PPCMessage&))
{
    bool isNew = false;
    try {
        isNew = state_.handlers.Register(msgType, handler);
    } catch (const std::bad_alloc&) {
        GAK_STATUS(kStatusMemoryExhausted, "[GAKPPCSER] RegPPCSerMsgProcFunc no memory for type:%u", msgType);
        return;
    }
    if (isNew) {
        GAK_INFO("[GAKPPCSER] RegPPCSerMsgProcFunc type:%u" GAKPPC_MSG_TYPES " success", msgType);
    } else {
        GAK_INFO("[GAKPPCSER] RegPPCSerMsgProcFunc type:%u" GAKPPC_MSG_TYPES " has exist,no need to register", msgType);
    }
}

// ---- Reaping receive threads ----

void PpcServer::JoinAllPPCRcvThreads()
{
    const ReceiveThreads::Reaping reaping = state_.receiveThreads.Reap(IsLogEnabled(kLogInfo));
    GAK_INFO("[GAKPPCSER] JoinAllPPCRcvThreads() enter [threadSize=%zu]", reaping.threadsBefore);
    LogReapedThreads(reaping.threads, reaping.ended);
    GAK_INFO("[GAKPPCSER] JoinAllPPCRcvThreads() exit [threadSize=%zu] [freeThreadSize=%zu]", reaping.threadsAfter,
             reaping.endedAfter);
}

}  // namespace qel
