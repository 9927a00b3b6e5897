// The daemon's end: Destroy against everything else, handlers that call back, tables that change under a sender.

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "log_sink.h"
#include "peers.h"
#include "ppc.h"
#include "ppc_server.h"
#include "scenario.h"
#include "socket_limits.h"
#include "status_table.h"

namespace {

using gaktest::kHeartbeat;
using gaktest::kShutdown;
using gaktest::Peer;
using gaktest::Require;
using gaktest::WireMessage;
using qel::PPCMessage;
using qel::PpcServer;

PpcServer& Server()
{
    return PpcServer::GetInstance();
}

// The protobuf library's own first use is not what is searched here.
void Prepare()
{
    Server();
    PPCMessage().SerializeAsString();
}

void StartServer()
{
    ppcInit();
    Require(Server().CreateServer(gaktest::kServerId) == qel::kStatusOk, "the server cannot be created");
}

WireMessage HeartbeatOf(uint8_t pid)
{
    return {kHeartbeat, 0, 0, gaktest::kCompute, pid};
}

PPCMessage ShutdownFor(uint8_t pid)
{
    PPCMessage message;
    message.set_type(PPCMessage::SHUTDOWN);
    message.set_proc_type(PPCMessage::COMPUTE);
    message.set_sub_proc_pid(pid);
    return message;
}

// Sends one message and reads until the server ends the connection.
void WorkerThatIsThrownOut(uint8_t pid)
{
    Peer worker;
    if (worker.Connect() && worker.Send(HeartbeatOf(pid))) {
        while (worker.Receive().has_value()) {
        }
    }
}

void WorkerThatLeaves(uint8_t pid)
{
    Peer worker;
    if (worker.Connect()) {
        worker.Send(HeartbeatOf(pid));
    }
}

// Sends as many messages to a worker that does not read as it takes until nothing more goes out.
void SendUntilItFails(uint8_t pid)
{
    while (Server().SendData(ShutdownFor(pid)) == qel::kStatusOk) {
    }
}

// Nothing of the server is left: this thread alone runs, and no descriptor is open but those there were before.
void RequireNothingLeft(int descriptorsBefore)
{
    Require(!Server().IsPPCServerRunning(), "the server runs after Destroy");
    Require(gaktest::RunningThreads() == 1, "a thread of the server is left after Destroy");
    Require(gaktest::OpenDescriptors() == descriptorsBefore, "a descriptor of the server is left after Destroy");
}

// A receive thread that starts only now leaves at once: the first thing that it would do otherwise fails with a line.
void RequireNothingIsReceived()
{
    static std::atomic<int> lines{0};
    gaktest::logSink.onLine = [] { ++lines; };
    void* const noSession = nullptr;
    Server().RecvData(noSession, 0);
    Require(lines == 0, "the server receives after Destroy");
}

// What handlers do.
std::atomic<int> calls{0};
std::mutex daemonMutex;

void Count(const PPCMessage& /*message*/)
{
    ++calls;
}

// Messages that handlers have noted, and a wait for them.
class Heard {
public:
    void Note(uint32_t type)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++times_[type];
        changed_.notify_all();
    }
    void WaitFor(uint32_t type)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this, type] { return times_[type] > 0; });
    }
    int Times(uint32_t type)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return times_[type];
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int times_[PPCMessage::MsgType_ARRAYSIZE] = {};
};

Heard heard;

void Note(const PPCMessage& message)
{
    heard.Note(static_cast<uint32_t>(message.type()));
}

void Reap(const PPCMessage& /*message*/)
{
    Server().JoinAllPPCRcvThreads();
}

void ReapUnderTheDaemonsMutex(const PPCMessage& /*message*/)
{
    const std::lock_guard<std::mutex> lock(daemonMutex);
    Server().JoinAllPPCRcvThreads();
}

void TakeTheDaemonsMutex(const PPCMessage& /*message*/)
{
    const std::lock_guard<std::mutex> lock(daemonMutex);
}

void Answer(const PPCMessage& message)
{
    Server().SendData(ShutdownFor(static_cast<uint8_t>(message.sub_proc_pid())));
}

void EndThread(const PPCMessage& /*message*/)
{
    pthread_exit(nullptr);
}

void CloseOwnSession(const PPCMessage& message)
{
    Server().CloseSomeSession(Server().GetPpcSession(message.src_id(), message.sub_proc_pid()));
}

}  // namespace

SCENARIO_WITH(ServerDestroyAgainstAccept, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread worker(WorkerThatIsThrownOut, 1);
    Server().Destroy();
    worker.join();
    RequireNothingLeft(before);
    RequireNothingIsReceived();
}

SCENARIO_WITH(ServerDestroyAgainstReceive, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, Count);
    StartServer();
    std::thread first(WorkerThatIsThrownOut, 1);
    std::thread second(WorkerThatLeaves, 2);
    second.join();
    Server().Destroy();
    const int callsAtEnd = calls;
    first.join();
    Require(calls == callsAtEnd, "a handler is called after Destroy");
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerDestroyAgainstSend, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread worker(WorkerThatIsThrownOut, 1);
    std::thread sender([] {
        const uint32_t status = Server().SendData(ShutdownFor(1));
        Require(status == qel::kStatusOk || status == qel::kStatusPpcNoSession || status == qel::kStatusPpcSendRecvFail,
                "SendData returns something else");
    });
    Server().Destroy();
    sender.join();
    worker.join();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerDestroyAgainstReaping, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread worker(WorkerThatLeaves, 1);
    worker.join();
    std::thread reaper([] { Server().JoinAllPPCRcvThreads(); });
    Server().Destroy();
    reaper.join();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerDestroyAgainstCreateServer, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread creator([] { Server().CreateServer(gaktest::kServerId); });
    Server().Destroy();
    creator.join();
    if (Server().IsPPCServerRunning()) {
        Peer worker;
        Require(worker.Connect(), "the server runs but does not listen");
    }
    Server().Destroy();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerDestroyAgainstDestroy, nullptr, Prepare)
{
    StartServer();
    const auto destroyAndStartOver = [](uint32_t type) {
        Server().Destroy();
        Server().RegPPCSerMsgProcFunc(type, Count);
    };
    std::thread other(destroyAndStartOver, kHeartbeat);
    destroyAndStartOver(gaktest::kStartRsp);
    other.join();
    PPCMessage message;
    message.set_type(PPCMessage::HEARTBEAT);
    Server().PPCSerMsgProc(message);
    message.set_type(PPCMessage::START_RSP);
    Server().PPCSerMsgProc(message);
    Require(calls == 2, "a handler that was registered after Destroy is gone");
}

SCENARIO_WITH(ServerHandlerReaps, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(PPCMessage::SOCKET_CLOSE, Reap);
    StartServer();
    WorkerThatLeaves(1);
    Server().Destroy();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerReaperAndHandlersShareAMutex, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, TakeTheDaemonsMutex);
    StartServer();
    WorkerThatLeaves(1);
    std::thread reaper([] { ReapUnderTheDaemonsMutex(PPCMessage()); });
    Server().Destroy();
    reaper.join();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerHandlerAnswers, nullptr, Prepare)
{
    Server().RegPPCSerMsgProcFunc(kHeartbeat, Answer);
    StartServer();
    std::thread other([] {
        Peer worker;
        Require(worker.Connect() && worker.Send(HeartbeatOf(2)), "a worker cannot send");
        const auto answer = worker.Receive();
        Require(answer.has_value() && answer->type == kShutdown && answer->pid == 2, "a worker gets another's answer");
    });
    Peer worker;
    Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "a worker cannot send");
    const auto answer = worker.Receive();
    Require(answer.has_value() && answer->type == kShutdown && answer->pid == 1, "a worker gets another's answer");
    other.join();
}

// A daemon hears of the end of every session, also of those that it closes itself.
SCENARIO_WITH(ServerHandlerClosesItsOwnSession, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, CloseOwnSession);
    Server().RegPPCSerMsgProcFunc(PPCMessage::SOCKET_CLOSE, Note);
    StartServer();
    {
        Peer worker;
        Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
        Require(worker.ReadsEnd(), "the worker is told something");
    }
    heard.WaitFor(PPCMessage::SOCKET_CLOSE);
    Server().Destroy();
    Require(heard.Times(PPCMessage::SOCKET_CLOSE) == 1, "the daemon hears more than once of one end");
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerClosesASessionThatSends, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, Note);
    Server().RegPPCSerMsgProcFunc(PPCMessage::SOCKET_CLOSE, Note);
    StartServer();
    std::thread worker([] {
        Peer peer;
        Require(peer.Connect() && peer.Send(HeartbeatOf(1)), "the worker cannot send");
        while (peer.Send(HeartbeatOf(1)) && heard.Times(PPCMessage::HEARTBEAT) < 3) {
        }
        Require(peer.ReadsEnd(), "the worker is told something");
    });
    heard.WaitFor(PPCMessage::HEARTBEAT);
    Server().CloseSomeSession(Server().GetPpcSession(0, 1));
    heard.WaitFor(PPCMessage::SOCKET_CLOSE);
    worker.join();
    Server().Destroy();
    Require(heard.Times(PPCMessage::SOCKET_CLOSE) == 1, "the daemon hears more than once of one end");
    RequireNothingLeft(before);
}

// The worker with process id 1 leaves; whoever comes after it, perhaps with its descriptor and its record's memory, is
// not told what was meant for it.
SCENARIO_WITH(ServerSendsToNobodyElse, nullptr, Prepare)
{
    StartServer();
    std::thread first(WorkerThatLeaves, 1);
    std::thread sender([] {
        for (int message = 0; message < 2; ++message) {
            Server().SendData(ShutdownFor(1));
        }
    });
    Peer second;
    Require(second.Connect() && second.Send(HeartbeatOf(2)), "the worker cannot send");
    first.join();
    sender.join();
    Server().Destroy();
    Require(second.ReadsEnd(), "a worker is told what was meant for another");
}

// Two sessions of one worker: each message overwrites the entry that the other has made.
SCENARIO_WITH(ServerTableOverwritesAgainstSends, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread first(WorkerThatIsThrownOut, 1);
    std::thread second(WorkerThatLeaves, 1);
    for (int message = 0; message < 3; ++message) {
        Server().SendData(ShutdownFor(1));
    }
    Server().Destroy();
    first.join();
    second.join();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerCloseAgainstSendAndReceive, nullptr, Prepare)
{
    StartServer();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, Count);
    std::thread worker(WorkerThatIsThrownOut, 1);
    std::thread closer([] { Server().CloseSomeSession(Server().GetPpcSession(0, 1)); });
    std::thread sender([] { Server().SendData(ShutdownFor(1)); });
    closer.join();
    sender.join();
    Server().Destroy();
    worker.join();
}

// Senders are blocked because the worker does not read; Destroy wakes them all the same.
SCENARIO_WITH(ServerDestroyAgainstBlockedSenders, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    gaktest::socketLimits.smallBuffers = true;
    StartServer();
    {
        Peer worker;
        Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
        std::thread first(SendUntilItFails, 1);
        std::thread second(SendUntilItFails, 1);
        Server().Destroy();
        first.join();
        second.join();
    }
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerCloseAgainstBlockedSender, nullptr, Prepare)
{
    gaktest::socketLimits.smallBuffers = true;
    StartServer();
    Peer worker;
    Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
    std::thread sender(SendUntilItFails, 1);
    Server().CloseSomeSession(Server().GetPpcSession(0, 1));
    std::thread other(SendUntilItFails, 1);
    Server().Destroy();
    sender.join();
    other.join();
}

// The kernel takes frames in pieces, and those of several senders must not mix.
SCENARIO_WITH(ServerSendersDoNotMixFrames, nullptr, Prepare)
{
    gaktest::socketLimits.largestPiece = 7;
    Server().RegPPCSerMsgProcFunc(kHeartbeat, Answer);
    StartServer();
    Peer worker;
    Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
    std::thread sender([] { Server().SendData(ShutdownFor(1)); });
    Server().SendData(ShutdownFor(1));
    sender.join();
    Server().Destroy();
    while (const auto message = worker.ReceiveOrCutFrame()) {  // Destroy may cut the last one
        Require(message->type == kShutdown && message->pid == 1, "frames have mixed");
    }
}

// A frame that Destroy cuts ends the connection: the worker reads its beginning and nothing after it.
SCENARIO_WITH(ServerDestroyCutsAFrame, nullptr, Prepare)
{
    gaktest::socketLimits.largestPiece = 7;
    StartServer();
    Peer worker;
    Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
    std::thread sender([] { Server().SendData(ShutdownFor(1)); });
    std::thread other([] { Server().SendData(ShutdownFor(1)); });
    Server().Destroy();
    sender.join();
    other.join();
    while (worker.ReceiveOrCutFrame().has_value()) {
    }
}

SCENARIO_WITH(ServerTwoReapersWhileWorkersComeAndGo, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    std::thread workers([] {
        WorkerThatLeaves(1);
        WorkerThatLeaves(2);
        WorkerThatLeaves(3);
    });
    const auto reap = [] {
        for (int time = 0; time < 2; ++time) {
            Server().JoinAllPPCRcvThreads();
        }
    };
    std::thread reaper(reap);
    reap();
    reaper.join();
    workers.join();
    Server().Destroy();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerCreatedByTwoThreads, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    std::thread other(StartServer);
    StartServer();
    other.join();
    {
        Peer worker;
        Require(worker.Connect(), "the server does not listen");
    }
    Server().Destroy();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerRegistersAgainstDispatchAndDestroy, nullptr, Prepare)
{
    StartServer();
    std::thread registrar([] {
        Server().RegPPCSerMsgProcFunc(kHeartbeat, Count);
        Server().RegPPCSerMsgProcFunc(PPCMessage::SOCKET_CLOSE, Count);
    });
    std::thread worker(WorkerThatLeaves, 1);
    Server().Destroy();
    registrar.join();
    worker.join();
}

SCENARIO_WITH(ServerHandlerEndsItsThread, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    Server().RegPPCSerMsgProcFunc(kHeartbeat, EndThread);
    StartServer();
    std::thread worker(WorkerThatLeaves, 1);
    std::thread reaper([] { Server().JoinAllPPCRcvThreads(); });
    worker.join();
    Server().Destroy();
    reaper.join();
    RequireNothingLeft(before);
}

SCENARIO_WITH(ServerCloseAgainstDestroy, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    StartServer();
    {
        Peer worker;
        Require(worker.Connect() && worker.Send(HeartbeatOf(1)), "the worker cannot send");
        std::thread closer([] { Server().CloseSomeSession(Server().GetPpcSession(0, 1)); });
        Server().Destroy();
        closer.join();
    }
    RequireNothingLeft(before);
}
