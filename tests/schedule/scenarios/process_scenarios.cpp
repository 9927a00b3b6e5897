// First use, exit and fork with threads inside the library.

#include <atomic>
#include <string>
#include <thread>

#include "log.h"
#include "log_sink.h"
#include "peers.h"
#include "ppc.h"
#include "ppc_client.h"
#include "ppc_record.h"
#include "ppc_server.h"
#include "scenario.h"
#include "status_factory.h"

namespace {

using gaktest::kCompute;
using gaktest::kHeartbeat;
using gaktest::Listener;
using gaktest::Peer;
using gaktest::Require;
using qel::PpcClient;
using qel::PPCMessage;
using qel::PpcServer;
using qel::StatusFactory;

constexpr uint32_t kOwnStatus = 0x7F13001;

void Prepare()
{
    PPCMessage().SerializeAsString();
    ppcInit();
}

void Worker()
{
    Peer worker;
    if (worker.Connect() && worker.Send({kHeartbeat, 0, 0, kCompute, 1})) {
        while (worker.Receive().has_value()) {
        }
    }
}

void StartServer()
{
    Require(PpcServer::GetInstance().CreateServer(gaktest::kServerId) == 0x1011000, "the server cannot be created");
}

std::atomic<int> linesBeforeOpening{0};

void CountEarlyLine()
{
    linesBeforeOpening += gaktest::logSink.opened == 0 ? 1 : 0;
}

int ReceiveOn(PpcSession* session)
{
    PpcMsg* message = nullptr;
    uint32_t count = 0;
    drvPpcAllocMsg(session, &message, 1);
    const int code = drvPpcRecv(session, message, 0, 0, &count);
    drvPpcFreeMsg(message);
    return code;
}

}  // namespace

SCENARIO(FirstUseOfTheLogger)
{
    gaktest::logSink.level = 0;
    gaktest::logSink.onLine = CountEarlyLine;
    const auto log = [] { QEL_LOG_IMPL("function", "file", 1, "text"); };
    std::thread first(log);
    std::thread second([] { QEL_EVENT_LOG_IMPL("function", "file", 1, "text"); });
    log();
    first.join();
    second.join();
    Require(linesBeforeOpening == 0, "a line is written before the log was opened");
    Require(gaktest::logSink.opened == 1, "the log was not opened exactly once");
}

SCENARIO(FirstUseOfTheRegistry)
{
    const auto enter = [](const char* text) { StatusFactory::GetInstance().RegisterErrorNo(kOwnStatus, text); };
    std::thread first(enter, "first");
    std::thread second(enter, "second");
    const std::string early = StatusFactory::GetErrCodeDesc(kOwnStatus);
    first.join();
    second.join();
    const std::string text = StatusFactory::GetErrCodeDesc(kOwnStatus);
    Require(text == "first" || text == "second", "a registered text is lost");
    Require(early.empty() || early == text, "a registered text has changed");
}

SCENARIO(FirstUseOfServerAndClient)
{
    static PpcServer* servers[2];
    static PpcClient* clients[2];
    const auto use = [](int index) {
        servers[index] = &PpcServer::GetInstance();
        clients[index] = PpcClient::GetInstance();
    };
    std::thread other(use, 1);
    use(0);
    other.join();
    Require(servers[0] == servers[1] && clients[0] == clients[1], "there are two instances");
}

SCENARIO_WITH(ExitOfADaemonThatRuns, nullptr, Prepare)
{
    PpcServer::GetInstance().RegPPCSerMsgProcFunc(kHeartbeat, [](const PPCMessage&) {});
    StartServer();
    std::thread(Worker).detach();
    std::thread([] { PpcServer::GetInstance().JoinAllPPCRcvThreads(); }).detach();
    gaktest::ExitProcess();
}

SCENARIO_WITH(ExitAgainstServerDestroy, nullptr, Prepare)
{
    StartServer();
    std::thread(Worker).detach();
    std::thread([] { PpcServer::GetInstance().Destroy(); }).detach();
    gaktest::ExitProcess();
}

SCENARIO_WITH(ExitInsideAHandler, nullptr, Prepare)
{
    PpcServer::GetInstance().RegPPCSerMsgProcFunc(kHeartbeat, [](const PPCMessage&) { gaktest::ExitProcess(); });
    StartServer();
    Worker();
}

SCENARIO_WITH(ExitOfAWorkerThatWaits, nullptr, Prepare)
{
    Listener listener;
    std::thread([] { PpcClient::GetInstance()->GakWaitForShutdownProc(0, kCompute); }).detach();
    std::thread([] { PpcClient::GetInstance()->SendHeartbeat(0, kCompute); }).detach();
    PpcClient::GetInstance()->SendHeartbeat(0, kCompute);
    gaktest::ExitProcess();
}

// A forked child that ends its parent's session closes its own copy of the descriptor and nothing else, whatever other
// threads of the parent were doing.
SCENARIO_WITH(ForkedChildEndsTheSessionOfAReceiver, nullptr, Prepare)
{
    Listener listener;
    PpcSession* session = nullptr;
    drvPpcSessionConnect(gaktest::kServerId, &session);
    const ppc::PpcSessionRef held(session);
    Peer daemon = listener.Accept();
    std::thread receiver([held, session] { Require(ReceiveOn(session) == PPC_OK, "the connection is disturbed"); });
    gaktest::RunInChild([session] {
        const int before = gaktest::OpenDescriptors();
        Require(drvPpcSessionDestroy(session) == PPC_OK, "the session cannot be ended");
        Require(gaktest::OpenDescriptors() == before - 1, "the child's copy of the descriptor stays open");
    });
    daemon.Send({kHeartbeat, 0, 0, kCompute, 1});
    receiver.join();
    drvPpcSessionDestroy(session);
}

SCENARIO_WITH(ForkedChildEndsASessionWhileAnotherIsMade, nullptr, Prepare)
{
    Listener listener;
    PpcSession* session = nullptr;
    drvPpcSessionConnect(gaktest::kServerId, &session);
    std::thread connector([] {
        PpcSession* other = nullptr;
        drvPpcSessionConnect(gaktest::kServerId, &other);
        drvPpcSessionDestroy(other);
    });
    gaktest::RunInChild([session] { Require(drvPpcSessionDestroy(session) == PPC_OK, "the session cannot be ended"); });
    connector.join();
    drvPpcSessionDestroy(session);
}

SCENARIO_WITH(ForkedChildExits, nullptr, Prepare)
{
    StartServer();
    Peer worker;
    Require(worker.Connect() && worker.Send({kHeartbeat, 0, 0, kCompute, 1}), "the worker cannot send");
    std::thread reaper([] { PpcServer::GetInstance().JoinAllPPCRcvThreads(); });
    gaktest::RunInChild([] { gaktest::ExitProcess(); });
    reaper.join();
    Require(PpcServer::GetInstance().IsPPCServerRunning(), "a child's exit ends its parent's server");
    Require(worker.Send({kHeartbeat, 0, 0, kCompute, 1}), "a child's exit ends its parent's session");
    PpcServer::GetInstance().Destroy();
}

// Exit handlers and what they tear down are entered while another thread uses them for the first time.
SCENARIO_WITH(ExitAgainstFirstUse, nullptr, Prepare)
{
    std::thread([] { PpcServer::GetInstance().CreateServer(gaktest::kServerId); }).detach();
    std::thread([] { PpcClient::GetInstance()->SendHeartbeat(0, kCompute); }).detach();
    gaktest::ExitProcess();
}

// A child that exits while a thread of its parent uses the logger for the first time does not wait for that thread.
SCENARIO_WITH(ForkedChildExitsDuringFirstUse, nullptr, Prepare)
{
    std::thread user([] {
        PpcServer::GetInstance();
        QEL_LOG_IMPL("function", "file", 1, "text");
    });
    gaktest::RunInChild([] { gaktest::ExitProcess(); });
    user.join();
}
