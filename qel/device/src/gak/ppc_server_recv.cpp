// Receiving on the sessions, calling the handlers, and reaping the threads that received.

#include <cxxabi.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gak_limits.h"
#include "gak_log.h"
#include "ppc_server.h"
#include "ppc_server_state.h"
#include "status_table.h"

namespace qel {
namespace {

// What a receive thread reports of a session that closed before its first message.
constexpr uint32_t kNoDevice = MAX_DEVNUM_PER_OS;
constexpr uint32_t kNoProcessType = PPCMessage::MAXPROCTYPE;

#define GAKPPC_MSG_TYPES \
    "(0:START RSP,1:SHUTDOWN RSP,2:HEARTBEAT,3:NOTIFY_VEXOINFO,4:ABNORMAL,5:SHUTDOWN,6:SOCKET_CLOSE)"

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

// Why the server does not take a worker's message, which ends its receive thread; null for one that it takes.
const char* Objection(const PPCMessage& msg)
{
    if (msg.src_id() >= MAX_DEVNUM_PER_OS) {
        return "[GAKPPCSER] RecvData() srcDevId >= MAX_DEVNUM_PER_OS invalid param";
    }
    if (static_cast<int32_t>(msg.proc_type()) > PPCMessage::CUSTOM_COMPUTE) {
        return "[GAKPPCSER] RecvData() proctype > COMPUTE invalid param";  // although CUSTOM_COMPUTE passes
    }
    if (static_cast<int32_t>(msg.type()) > PPCMessage::ABNORMAL) {
        return "[GAKPPCSER] RecvData() msgType > ABNORMAL invalid param";
    }
    return nullptr;
}

// For functions that catch abi::__forced_unwind. There is no exception object, and no reference to it is used.
#define GAKPPC_CATCHES_FORCED_UNWIND __attribute__((no_sanitize("null")))

}  // namespace

// ---- Receiving ----

// A receive thread at work on its session.
class PpcServer::Receiver {
public:
    Receiver(PpcServer& server, void* session, uint64_t threadNumber) : server_(server), session_(session)
    {
        snprintf(threadName_, sizeof(threadName_), "ppc_srv_recv_%" PRIu64, threadNumber);
        prctl(PR_SET_NAME, threadName_);
    }

    bool ReceiveMessages();
    void ReportSocketClosed();
    void End();

private:
    bool TakeMessage();

    PpcServer& server_;
    void* const session_;
    char threadName_[40];
    PPCMessage msg_;
    uint32_t status_ = kStatusOk;
    uint32_t lastDevice_ = kNoDevice;
    uint32_t lastProcessType_ = kNoProcessType;
};

GAKPPC_CATCHES_FORCED_UNWIND
void PpcServer::RecvData(void* const& session, uint64_t threadNumber)
{
    Receiver receiver(*this, session, threadNumber);
    if (!serverRecvFlag_) {
        return;
    }
    try {
        if (!receiver.ReceiveMessages()) {
            return;  // the session stays open
        }
        receiver.ReportSocketClosed();
    } catch (const abi::__forced_unwind&) {
        receiver.End();  // a handler ends this thread
        throw;
    }
    receiver.End();
}

// Returns whether receiving has failed; false when the server takes no more messages from this worker.
bool PpcServer::Receiver::ReceiveMessages()
{
    while ((status_ = GetInstance().RecvMsg(session_, msg_)) == kStatusOk) {
        if (!TakeMessage() || !serverRecvFlag_) {
            return false;
        }
    }
    return true;
}

bool PpcServer::Receiver::TakeMessage()
{
    lastDevice_ = msg_.src_id();
    lastProcessType_ = static_cast<uint32_t>(msg_.proc_type());
    if (const char* objection = Objection(msg_); objection != nullptr) {
        GAK_STATUS_AS("RecvData", kStatusPpcServerInvalidParam, "%s", objection);
        return false;
    }
    server_.SetPpcSession(msg_.src_id(), msg_.sub_proc_pid(), session_);
    server_.PPCSerMsgProc(msg_);
    GAK_STATUS_AS("RecvData", kStatusOk,
                  "[GAKPPCSER] ##### [threadName:%s] RecvData [ret=%u] Save [device index in os:%u] "
                  "[notifyProcType:%u]####",
                  threadName_, kStatusOk, lastDevice_, lastProcessType_);
    return true;
}

// Tells the daemon that the peer has gone, by a message that no worker can send. Other failures are only logged.
void PpcServer::Receiver::ReportSocketClosed()
{
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 0 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret=[%u]?[%u]GAK to clean",
                 lastDevice_, lastProcessType_, status_, kStatusPpcSocketClosed);
    if (status_ != kStatusPpcSocketClosed) {
        return;
    }
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 1 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret[%u] GAK to clean",
                 lastDevice_, lastProcessType_, status_);
    // All other fields keep what the last received message brought, so that the daemon can tell which worker it was.
    msg_.set_type(PPCMessage::SOCKET_CLOSE);
    msg_.set_src_id(lastDevice_);
    msg_.set_dest_id(kPpcServerId);
    msg_.set_proc_type(static_cast<PPCMessage::ProcessType>(lastProcessType_));
    server_.PPCSerMsgProc(msg_);
    GAK_EVENT_AS("RecvData",
                 "[GAKPPCSER] 2 SOCKET_CLOSED notify device index in os[%u] procType[%u] ret[%u] GAK to clean",
                 lastDevice_, lastProcessType_, kStatusPpcSocketClosed);
}

void PpcServer::Receiver::End()
{
    server_.CloseSomeSession(session_);
    GAK_EVENT_AS("RecvData", "[GAKPPCSER] [threadName:%s] RecvData [ret=%u] [tid=%s]thread exit", threadName_, status_,
                 ThreadIdText(std::this_thread::get_id()).c_str());
    server_.state_.receiveThreads.ReportEnd();
}

// ---- Handlers ----

GAKPPC_CATCHES_FORCED_UNWIND
void PpcServer::PPCSerMsgProc(const PPCMessage& msg)
{
    const auto type = static_cast<uint32_t>(msg.type());
    GAK_INFO("[GAKPPCSER] PPCSerMsgProc msg type: %u", type);
    try {
        if (!state_.handlers.Dispatch(msg)) {
            GAK_INFO("[GAKPPCSER] PPCSerMsgProc msg type:%u" GAKPPC_MSG_TYPES " processFunc not exist", type);
        }
    } catch (const abi::__forced_unwind&) {
        throw;  // the handler ends this thread
    } catch (const std::exception& error) {
        GAK_STATUS(kStatusWarning, "[GAKPPCSER] PPCSerMsgProc handler of msg type: %u failed: %s", type, error.what());
    } catch (...) {
        GAK_STATUS(kStatusWarning, "[GAKPPCSER] PPCSerMsgProc handler of msg type: %u failed", type);
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

namespace {

constexpr char kReaper[] = "JoinAllPPCRcvThreads";

// The search for each thread among those that had ended, until none of those is left.
void LogReapedThreads(ReceiveThreads::Reaping& reaping)
{
    const std::vector<ReceiveThreads::Record>& threads = reaping.threads;
    std::vector<ReceiveThreads::Record>& ended = reaping.ended;
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

}  // namespace

void PpcServer::JoinAllPPCRcvThreads()
{
    ReceiveThreads::Reaping reaping = state_.receiveThreads.Reap(IsLogEnabled(kLogInfo));
    GAK_INFO("[GAKPPCSER] JoinAllPPCRcvThreads() enter [threadSize=%zu]", reaping.threadsBefore);
    LogReapedThreads(reaping);
    GAK_INFO("[GAKPPCSER] JoinAllPPCRcvThreads() exit [threadSize=%zu] [freeThreadSize=%zu]", reaping.threadsAfter,
             reaping.endedAfter);
}

}  // namespace qel
