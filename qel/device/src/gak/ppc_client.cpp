#include "ppc_client.h"

#include <atomic>
#include <new>

#include "at_exit.h"
#include "client_sessions.h"
#include "custom_start.h"
#include "gak_limits.h"
#include "gak_log.h"
#include "no_destructor.h"
#include "own_pid.h"
#include "ppc.h"
#include "ppc_record.h"
#include "process_devices.h"
#include "status_table.h"
#include "tracepoints.h"

namespace qel {
namespace {

constexpr char kSourcePath[] = "qel/device/src/gak/ppc_client";

constexpr int kClientCreateReserved1 = 100;
constexpr int kClientCreateReserved2 = 0;
constexpr int32_t kLargestWaitType = 3;

// One bit for each device, plus the process type. Devices of 4 and more share the keys of lower ones.
uint32_t SessionKey(uint32_t deviceId, PPCMessage::ProcessType procType)
{
    return (1U << ((deviceId * 8U) % 32U)) + static_cast<uint32_t>(procType);
}

// The process type to send for an accepted wait type. Unlike GetPPCProcessType, whatever is neither ZOLT nor
// CUSTOM_COMPUTE becomes COMPUTE.
PPCMessage::ProcessType ProcessTypeToSend(GakWaitType waitType)
{
    switch (waitType) {
        case PPCMessage::ZOLT:
            return PPCMessage::ZOLT;
        case PPCMessage::CUSTOM_COMPUTE:
            return PPCMessage::CUSTOM_COMPUTE;
        default:
            return PPCMessage::COMPUTE;
    }
}

PPCMessage MessageToDaemon(PPCMessage::MsgType type, uint32_t deviceId, PPCMessage::ProcessType procType)
{
    PPCMessage msg;
    msg.set_type(type);
    msg.set_src_id(deviceId);
    msg.set_dest_id(kPpcServerId);
    msg.set_proc_type(procType);
    msg.set_sub_proc_pid(OwnPid());
    return msg;
}

// False when memory runs out.
bool AddLibNames(const std::vector<std::string>& libNames, PPCMessage& msg)
{
    try {
        VexoSdLibNames* names = msg.mutable_lib_names();
        // Once for all: a name whose place cannot be made would be lost.
        names->mutable_lib_name()->Reserve(static_cast<int>(libNames.size()));
        for (const std::string& name : libNames) {
            names->add_lib_name(name);
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

// Its members synchronise themselves.
struct PpcClient::State {
    static State& Instance()
    {
        static NoDestructor<State> state;
        return *state;
    }

    std::atomic<void*> client{nullptr};
    ClientSessions sessions;
    ProcessDevices devices;
    CustomStart customStart;

    bool CreateClient();
    ppc::PpcSessionRef GetSession(uint32_t deviceId, PPCMessage::ProcessType procType,
                                  ClientSessions::AfterDestroy afterDestroy = ClientSessions::AfterDestroy::kStartOver);
    ppc::PpcSessionRef GetSessionToReceive(uint32_t deviceId, PPCMessage::ProcessType procType);
    void RecordDevice(uint32_t pid, uint32_t deviceId);
    void DestroyClient();
};

// What SendHeartbeat and SendAbnormalMsg differ in.
struct PpcClient::Report {
    const char* function;
    const char* word;
    PPCMessage::MsgType type;
};

PpcClient* PpcClient::GetInstance()
{
    static NoDestructor<PpcClient> instance;
    static const AtExit<PpcClient> atExit(*instance);
    return &*instance;
}

PpcClient::PpcClient() : state_(State::Instance()) {}

PpcClient::~PpcClient()
{
    OnProcessExit();
}

void PpcClient::OnProcessExit()
{
    if (state_.sessions.BelongToParent()) {
        return;
    }
    GAK_INFO_AS("~PpcClient", "PpcClient::~PpcClient() destructor function called");
    Destroy();
}

// Two threads may come here at once; the handle of the one that came too late is given back.
bool PpcClient::State::CreateClient()
{
    if (client != nullptr) {
        return true;
    }
    if (drvPpcInit() != PPC_OK) {
        GAK_STATUS_AS("GetPpcSession", kStatusPpcInitFail, "[GAKPPCCLI] GetPpcSession() drvPpcInit fail");
        return false;
    }
    void* created = nullptr;
    if (drvPpcClientCreate(&created, kClientCreateReserved1, kClientCreateReserved2) != PPC_OK) {
        GAK_STATUS_AS("GetPpcSession", kStatusPpcCreateFail, "[GAKPPCCLI] GetPpcSession() drvPdcClientCreate fail");
        return false;
    }
    void* none = nullptr;
    if (created != nullptr && !client.compare_exchange_strong(none, created)) {
        drvPpcClientDestroy(created);
    }
    return true;
}

ppc::PpcSessionRef PpcClient::State::GetSession(uint32_t deviceId, PPCMessage::ProcessType procType,
                                                ClientSessions::AfterDestroy afterDestroy)
{
    return CreateClient() ? sessions.Get(SessionKey(deviceId, procType), afterDestroy) : ppc::PpcSessionRef();
}

// After Destroy the receive loop opens no session: it may be a thread that found out late, while the process exits.
ppc::PpcSessionRef PpcClient::State::GetSessionToReceive(uint32_t deviceId, PPCMessage::ProcessType procType)
{
    return sessions.IsDestroyed() ? ppc::PpcSessionRef()
                                  : GetSession(deviceId, procType, ClientSessions::AfterDestroy::kOpenNothing);
}

void* PpcClient::GetPpcSession(uint32_t deviceId, PPCMessage::ProcessType procType)
{
    return state_.GetSession(deviceId, procType).Get();
}

uint32_t PpcClient::SendData(void*& session, const PPCMessage& msg)
{
    return SendMsg(session, msg);
}

uint32_t PpcClient::RecvData(uint32_t deviceId, GakWaitType waitType)
{
    const PPCMessage::ProcessType procType = GetPPCProcessType(waitType);
    const ppc::PpcSessionRef held = state_.GetSessionToReceive(deviceId, procType);
    void* session = held.Get();
    for (;;) {
        if (!state_.sessions.IsRunning()) {
            GAK_STATUS(kStatusPpcRecvFail, "[GAKPPCCLI] recvdata device %d clientRecvFlag_ is false receive msg failed",
                       static_cast<int>(deviceId));
            return kStatusPpcRecvFail;
        }
        PPCMessage msg;
        const uint32_t status = RecvMsg(session, msg);
        if (!state_.sessions.IsRunning()) {
            // The text says the opposite of what happened; log readers know it so.
            GAK_INFO("[GAKPPCCLI] recvdata device %d client recvflag has been set true", static_cast<int>(deviceId));
            return status;
        }
        if (status != kStatusOk) {
            GAK_STATUS(status, "[GAKPPCCLI] recvdata device %d client receive message failed",
                       static_cast<int>(deviceId));
            return status;
        }
        const uint32_t result = RecvMsgProc(deviceId, session, procType, msg);
        if (result != kStatusPpcClientNotExpected) {
            GAK_INFO("[PPCClient]Process Exit DevId:%u procType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE)", deviceId,
                     static_cast<uint32_t>(procType));
            return result;
        }
    }
}

uint32_t PpcClient::RecvMsgProc(uint32_t deviceId, void*& session, const PPCMessage::ProcessType& procType,
                                const PPCMessage& msg)
{
    GAK_INFO("PpcClient:: msg.type[%u], msg.proc_type[%u]", static_cast<uint32_t>(msg.type()),
             static_cast<uint32_t>(msg.proc_type()));
    if (msg.type() == PPCMessage::START_RSP && msg.proc_type() == PPCMessage::CUSTOM_COMPUTE) {
        state_.customStart.Report();
    }
    GAK_INFO("PpcClient::RecvMsgProc, size=%u, subpid=%u", static_cast<uint32_t>(msg.ByteSizeLong()),
             msg.sub_proc_pid());
    if (msg.type() != PPCMessage::SHUTDOWN || msg.dest_id() != deviceId) {
        GAK_INFO("[PPCClient] RecvMsgProc() device[%u] procType[%u] msgType[%u] no match continue", deviceId,
                 static_cast<uint32_t>(procType), static_cast<uint32_t>(msg.type()));
        return kStatusPpcClientNotExpected;
    }
    const PPCMessage answer = MessageToDaemon(PPCMessage::SHUTDOWN_RSP, deviceId, procType);
    GAK_INFO("PpcClient::RecvMsgProc, subpid1=%u, subpid2=%u", answer.sub_proc_pid(), answer.sub_proc_pid());
    const uint32_t status = SendData(session, answer);
    if (status == kStatusOk) {
        GAK_EVENT("[PPCCLIEVENT] #### PPCClient->GAK Close Rsp send OK device[%u] procType:%u ####", deviceId,
                  static_cast<uint32_t>(procType));
    } else {
        GAK_STATUS(status, "[PPCClient] SendCloseRsp error");
    }
    return status;
}

void PpcClient::Destroy()
{
    if (state_.sessions.BelongToParent()) {
        return;
    }
    GAK_INFO("[GAKPPCCLI]  Destroy() enter");
    if (!state_.sessions.DestroyAll()) {
        GAK_STATUS(kStatusDriverError, "[GAKPPCCLI]  Destroy() ppcclient not run");
        return;
    }
    state_.DestroyClient();
    drvPpcUninit();
    GAK_INFO("[GAKPPCCLI]  Destroy() exit");
}

void PpcClient::State::DestroyClient()
{
    void* destroyed = client.exchange(nullptr);
    if (destroyed != nullptr && drvPpcClientDestroy(destroyed) != PPC_OK) {
        GAK_STATUS_AS("Destroy", kStatusDriverError, "[GAKPPCCLI] Destroy() drvPpcClientDestroy fail");
    }
}

PPCMessage::ProcessType PpcClient::GetPPCProcessType(GakWaitType waitType)
{
    return waitType < PPCMessage::MAXPROCTYPE ? static_cast<PPCMessage::ProcessType>(waitType)
                                              : PPCMessage::MAXPROCTYPE;
}

// Without memory the message is still sent, and the next one records the device.
void PpcClient::State::RecordDevice(uint32_t pid, uint32_t deviceId)
{
    try {
        devices.Record(pid, deviceId);
    } catch (const std::bad_alloc&) {
        GAK_STATUS_AS("SendPpcMsg", kStatusMemoryExhausted, "[GAKPPCCLI] SendPpcMsg() no memory for the device");
    }
}

uint32_t PpcClient::SendPpcMsg(uint32_t deviceId, GakWaitType waitType, PPCMessage::MsgType msgType)
{
    GAK_INFO("[GAKPPCCLI] SendPpcMsg() deviceId: %u waitType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE) is running",
             deviceId, waitType);
    if (deviceId >= MAX_DEVNUM_PER_OS) {
        GAK_STATUS(kStatusPpcClientInvalidParam,
                   "[GAKPPCCLI] SendPpcMsg() srcDevId >= MAX_DEVNUM_PER_OS invalid param");
        return kStatusPpcClientInvalidParam;
    }
    if (static_cast<int32_t>(waitType) > kLargestWaitType) {
        GAK_STATUS(kStatusPpcClientInvalidParam, "[GAKPPCCLI] SendPpcMsg() waitType > COMPUTE invalid param");
        return kStatusPpcClientInvalidParam;
    }
    const PPCMessage::ProcessType procType = ProcessTypeToSend(waitType);
    const PPCMessage msg = MessageToDaemon(msgType, deviceId, procType);
    state_.RecordDevice(msg.sub_proc_pid(), deviceId);
    const ppc::PpcSessionRef held = state_.GetSession(deviceId, procType);
    void* session = held.Get();
    return SendData(session, msg);
}

uint32_t PpcClient::GakWaitForShutdownProc(uint32_t deviceId, GakWaitType waitType)
{
    GAK_INFO(
        "[GAKPPCCLI] GakWaitForShutdownProc() deviceId: %u waitType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE) "
        "is running",
        deviceId, waitType);
    if (SendPpcMsg(deviceId, waitType, PPCMessage::START_RSP) != kStatusOk) {
        GAK_STATUS(kStatusPpcCreateFail, "[GAKPPCCLI] GakWaitForShutdownProc() SendData fail");
        return kStatusPpcCreateFail;
    }
    return RecvData(deviceId, waitType);
}

uint32_t PpcClient::SendHeartbeat(uint32_t deviceId, GakWaitType waitType)
{
    return SendReport({__func__, "heartbeat", PPCMessage::HEARTBEAT}, deviceId, waitType);
}

uint32_t PpcClient::SendAbnormalMsg(uint32_t deviceId, GakWaitType waitType)
{
    return SendReport({__func__, "abnormal", PPCMessage::ABNORMAL}, deviceId, waitType);
}

uint32_t PpcClient::SendReport(const Report& report, uint32_t deviceId, GakWaitType waitType)
{
    GAK_INFO_AS(report.function,
                "[GAKPPCCLI] %s() deviceId: %u waitType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE) is running",
                report.function, deviceId, waitType);
    if (SendPpcMsg(deviceId, waitType, report.type) != kStatusOk) {
        GAK_STATUS_AS(
            report.function, kStatusPpcCreateFail,
            "[GAKPPCCLI] Send %s fail device[%u],procType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE), subProcPid[%u]",
            report.word, deviceId, waitType, OwnPid());
        return kStatusPpcCreateFail;
    }
    GAK_INFO_AS(report.function,
                "[GAKPPCCLI] Send %s success device[%u] procType:%u(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE), subProcPid[%u]",
                report.word, deviceId, waitType, OwnPid());
    return kStatusOk;
}

uint32_t PpcClient::CreateOrFindCustPid(std::vector<std::string>& libNames, uint32_t hostPid)
{
    uint32_t deviceId = 0;
    if (!state_.devices.Find(OwnPid(), &deviceId)) {
        return kStatusPpcCreateFail;
    }
    PPCMessage msg = MessageToDaemon(PPCMessage::NOTIFY_VEXOINFO, deviceId, PPCMessage::CUSTOM_COMPUTE);
    msg.set_host_pid(hostPid);
    if (!AddLibNames(libNames, msg)) {
        return kStatusPpcCreateFail;
    }
    GAKPPC_TRACE(custom_process_asked, deviceId, msg.sub_proc_pid());
    // Over the compute process's session: the custom process has none yet.
    const ppc::PpcSessionRef held = state_.GetSession(deviceId, PPCMessage::COMPUTE);
    void* session = held.Get();
    const uint32_t status = SendData(session, msg);
    state_.customStart.Wait();
    GAKPPC_TRACE(custom_process_found, deviceId, msg.sub_proc_pid());
    return status;
}

}  // namespace qel
