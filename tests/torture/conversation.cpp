#include "conversation.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

#include "daemon.h"
#include "fault_injector.h"
#include "gak.h"
#include "ppc_client.h"
#include "process.h"

namespace gaktest {
namespace {

using namespace std::chrono_literals;
using qel::PPCMessage;

constexpr uint32_t kGakFailed = 0x1093031;
constexpr uint32_t kComputeDevice = 0;
constexpr uint32_t kCustomDevice = 1;
constexpr GakWaitType kCompute = 1;
constexpr GakWaitType kCustomCompute = 2;
constexpr uint32_t kHostPid = 4711;
constexpr std::array<const char*, 2> kLibNames = {"libfirst_of_the_custom_process.so", "libsecond.so"};
constexpr int kHeartbeats = 3;

// How long a step may take: until its effect is seen, or, when calls have failed, until it will not come any more.
constexpr auto kStepLimit = 20s;
constexpr auto kGraceAfterFailure = 20ms;
constexpr auto kLookAgain = 5ms;  // a failing call announces itself to nobody

// The calls of one conversation, what its handlers saw, and what was wrong with it.
class Conversation {
public:
    std::string Run();

private:
    static void OnMessage(const PPCMessage& msg);

    void StartDaemon();
    void StartComputeWorker();
    void SendHeartbeats();
    void StartCustomProcess();
    void ReportAbnormal();
    void ShutDown(uint32_t device, PPCMessage::ProcessType type, int howManyAfterwards);
    void TearDown(size_t threadsBefore);

    void Order(PPCMessage::MsgType type, uint32_t device, PPCMessage::ProcessType procType);
    void CheckMessage(const PPCMessage& msg);
    void Seen(const PPCMessage& msg);
    void Await(const char* what, const std::function<bool()>& condition);
    void AwaitMessages(const char* what, PPCMessage::MsgType type, int count);
    void NoteFailure(const std::string& what);
    template <typename Call>
    void CallGak(const char* function, const Call& call);

    qel::PpcServer* server_ = nullptr;
    qel::PpcClient* client_ = nullptr;
    std::thread compute_;
    std::thread customStart_;
    std::thread custom_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::array<int, PPCMessage::SOCKET_CLOSE + 1> seen_{};
    int returned_ = 0;  // threads whose call into the library has returned
    bool customStartReturned_ = false;
    std::string failure_;
};

Conversation* current = nullptr;

template <typename Call>
auto InsideLibrary(const Call& call)
{
    const Inside inside;
    return call();
}

void Conversation::NoteFailure(const std::string& what)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (failure_.empty()) {
        failure_ = what;
    }
}

// Without a failing call every step has its effect.
void Conversation::Await(const char* what, const std::function<bool()>& condition)
{
    const Deadline limit = kStepLimit;
    const Deadline grace = kGraceAfterFailure;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, kLookAgain, condition)) {
        if (HasFailed() && grace.Passed()) {
            return;
        }
        if (limit.Passed()) {
            lock.unlock();
            NoteFailure(std::string("never happened: ") + what);
            return;
        }
    }
}

void Conversation::AwaitMessages(const char* what, PPCMessage::MsgType type, int count)
{
    Await(what, [&] { return seen_[static_cast<size_t>(type)] >= count; });
}

template <typename Call>
void Conversation::CallGak(const char* function, const Call& call)
{
    const uint32_t result = InsideLibrary(call);
    if (result != 0 && (result != kGakFailed || !HasFailed())) {
        std::ostringstream text;
        text << function << " returned 0x" << std::hex << result;
        NoteFailure(text.str());
    }
}

// ---- The daemon's side ----

void Conversation::OnMessage(const PPCMessage& msg)
{
    const Outside ours;
    current->CheckMessage(msg);
    current->Seen(msg);
}

void Conversation::Seen(const PPCMessage& msg)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ++seen_.at(static_cast<size_t>(msg.type()));
    changed_.notify_all();
}

// Whatever fails, a message arrives as it was sent or not at all. A SOCKET_CLOSE without a message before names none.
void Conversation::CheckMessage(const PPCMessage& msg)
{
    const bool fromNobody = msg.type() == PPCMessage::SOCKET_CLOSE && msg.proc_type() == PPCMessage::MAXPROCTYPE;
    const bool fromCustom = msg.src_id() == kCustomDevice && msg.proc_type() == PPCMessage::CUSTOM_COMPUTE;
    const bool isRequest = msg.host_pid() != 0;
    const bool fromCompute = msg.src_id() == kComputeDevice &&
                             msg.proc_type() == (isRequest ? PPCMessage::CUSTOM_COMPUTE : PPCMessage::COMPUTE);
    bool intact = fromNobody || ((fromCustom || fromCompute) && msg.dest_id() == kServerId &&
                                 msg.sub_proc_pid() == static_cast<uint32_t>(getpid()));
    if (msg.type() == PPCMessage::NOTIFY_VEXOINFO) {
        const auto& names = msg.lib_names().lib_name();
        intact = intact && msg.host_pid() == kHostPid && names.size() == static_cast<int>(kLibNames.size()) &&
                 names[0] == kLibNames[0] && names[1] == kLibNames[1];
    }
    if (!intact) {
        NoteFailure("damaged message: " + msg.ShortDebugString());
    }
}

void Conversation::StartDaemon()
{
    const uint32_t status = InsideLibrary([this] {
        server_ = &qel::PpcServer::GetInstance();
        for (uint32_t type = PPCMessage::START_RSP; type <= PPCMessage::SOCKET_CLOSE; ++type) {
            server_->RegPPCSerMsgProcFunc(type, &Conversation::OnMessage);
        }
        return server_->CreateServer(kServerId);
    });
    if (status != kOk && !HasFailed()) {
        NoteFailure("CreateServer failed");
    }
}

void Conversation::Order(PPCMessage::MsgType type, uint32_t device, PPCMessage::ProcessType procType)
{
    const PPCMessage msg = MessageTo(device, static_cast<uint32_t>(getpid()), type, procType);
    const uint32_t status = InsideLibrary([&] { return server_->SendData(msg); });
    if (status != kOk && !HasFailed()) {
        NoteFailure("SendData failed");
    }
}

// ---- The workers' side ----

void Conversation::StartComputeWorker()
{
    compute_ = std::thread([this] {
        NameThread(kComputeThread);
        CallGak("GakWaitForShutdown", [] { return GakWaitForShutdown(kComputeDevice, kCompute); });
        std::lock_guard<std::mutex> lock(mutex_);
        ++returned_;
        changed_.notify_all();
    });
    AwaitMessages("START_RSP of the compute worker", PPCMessage::START_RSP, 1);
}

void Conversation::SendHeartbeats()
{
    for (int i = 1; i <= kHeartbeats; ++i) {
        CallGak("GakHeartbeatSend", [] { return GakHeartbeatSend(kComputeDevice, kCompute); });
        AwaitMessages("HEARTBEAT", PPCMessage::HEARTBEAT, i);
    }
}

// The compute worker asks; the daemon starts the custom process and, when that has reported, lets the compute worker
// know.
void Conversation::StartCustomProcess()
{
    customStart_ = std::thread([this] {
        NameThread(kCustomStartThread);
        CallGak("CreateOrFindCustPid",
                [] { return CreateOrFindCustPid(kLibNames.size(), kLibNames.data(), kHostPid); });
        std::lock_guard<std::mutex> lock(mutex_);
        customStartReturned_ = true;
        changed_.notify_all();
    });
    AwaitMessages("NOTIFY_VEXOINFO", PPCMessage::NOTIFY_VEXOINFO, 1);
    custom_ = std::thread([this] {
        NameThread(kCustomThread);
        CallGak("GakWaitForShutdown", [] { return GakWaitForShutdown(kCustomDevice, kCustomCompute); });
        std::lock_guard<std::mutex> lock(mutex_);
        ++returned_;
        changed_.notify_all();
    });
    AwaitMessages("START_RSP of the custom process", PPCMessage::START_RSP, 2);
    Order(PPCMessage::START_RSP, kComputeDevice, PPCMessage::CUSTOM_COMPUTE);
    Await("the return of CreateOrFindCustPid", [this] { return customStartReturned_; });
}

void Conversation::ReportAbnormal()
{
    CallGak("GakDestory", [] { return GakDestory(kComputeDevice, kCompute); });
    AwaitMessages("ABNORMAL", PPCMessage::ABNORMAL, 1);
}

void Conversation::ShutDown(uint32_t device, PPCMessage::ProcessType type, int howManyAfterwards)
{
    Order(PPCMessage::SHUTDOWN, device, type);
    AwaitMessages("SHUTDOWN_RSP", PPCMessage::SHUTDOWN_RSP, howManyAfterwards);
    Await("the return of GakWaitForShutdown", [&] { return returned_ == howManyAfterwards; });
}

void Conversation::TearDown(size_t threadsBefore)
{
    // One session is ended by the daemon, the other by its worker; one after the other, so that the reaper always finds
    // the receive threads in the same order. A receiver that waits learns of the end in the same way every time.
    Await("the first receive thread's waiting", [] { return IsReceiving(kFirstReceiveThread) || HasFailed(); });
    const auto pid = static_cast<uint32_t>(getpid());
    InsideLibrary([&] { server_->CloseSomeSession(server_->GetPpcSession(kComputeDevice, pid)); });
    Await("the end of the first receive thread", [&] { return gaktest::ThreadCount() <= threadsBefore + 2; });
    InsideLibrary([this] { client_->Destroy(); });
    AwaitMessages("SOCKET_CLOSE", PPCMessage::SOCKET_CLOSE, 1);
    if (compute_.joinable()) {
        compute_.join();
    }
    if (custom_.joinable()) {
        custom_.join();
    }
    {
        // A request that was lost leaves its caller waiting for the custom process, whose report may still come.
        PPCMessage report;
        report.set_type(PPCMessage::START_RSP);
        report.set_proc_type(PPCMessage::CUSTOM_COMPUTE);
        void* noSession = nullptr;
        const Inside inside;
        client_->RecvMsgProc(kComputeDevice, noSession, PPCMessage::COMPUTE, report);
    }
    if (customStart_.joinable()) {
        customStart_.join();
    }
    Await("the end of the receive threads", [&] { return gaktest::ThreadCount() <= threadsBefore + 1; });
    const Inside inside;
    client_->Destroy();  // a thread that came too late may have opened a session
    server_->JoinAllPPCRcvThreads();
    server_->Destroy();
}

std::string Conversation::Run()
{
    const size_t descriptors = gaktest::OpenDescriptors();
    const size_t threads = gaktest::ThreadCount();
    current = this;
    client_ = InsideLibrary(&qel::PpcClient::GetInstance);
    if (InsideLibrary(&ppcInit) != 0 && !HasFailed()) {
        NoteFailure("ppcInit failed");
    }
    StartDaemon();
    StartComputeWorker();
    SendHeartbeats();
    StartCustomProcess();
    ReportAbnormal();
    ShutDown(kComputeDevice, PPCMessage::COMPUTE, 1);
    ShutDown(kCustomDevice, PPCMessage::CUSTOM_COMPUTE, 2);
    TearDown(threads);
    if (!gaktest::WaitUntil([&] { return gaktest::ThreadCount() == threads; }, 2s)) {
        NoteFailure("threads are left: " + std::to_string(gaktest::ThreadCount() - threads));
    }
    if (gaktest::OpenDescriptors() != descriptors) {
        NoteFailure("descriptors are left: " + std::to_string(gaktest::OpenDescriptors() - descriptors));
    }
    return failure_;
}

}  // namespace

std::string RunConversation()
{
    Conversation conversation;
    return conversation.Run();
}

bool FloodRecords()
{
    constexpr int kSessionsKept = 4096;
    constexpr int kServersKept = 64;
    for (int i = 0; i <= kServersKept; ++i) {
        PpcServerHead* server = nullptr;
        if (drvPpcServerCreate(kServerId, &server) != PPC_OK || drvPpcServerDestroy(server) != PPC_OK) {
            return false;
        }
    }
    PretendToConnect();
    for (int i = 0; i <= kSessionsKept; ++i) {
        PpcSession* session = nullptr;
        if (drvPpcSessionConnect(kServerId, &session) != PPC_OK || drvPpcSessionDestroy(session) != PPC_OK) {
            return false;
        }
    }
    return true;
}

}  // namespace gaktest
