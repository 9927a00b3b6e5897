// The worker's end: Destroy against each call that may be in flight, first use by several threads, the wait for the
// custom process.

#include <string>
#include <thread>
#include <vector>

#include "peers.h"
#include "ppc.h"
#include "ppc_client.h"
#include "scenario.h"
#include "status_table.h"

namespace {

using gaktest::kCompute;
using gaktest::kHeartbeat;
using gaktest::kStartRsp;
using gaktest::Listener;
using gaktest::Peer;
using gaktest::Require;
using qel::PpcClient;
using qel::PPCMessage;

constexpr uint8_t kZolt = 0;

PpcClient& Client()
{
    return *PpcClient::GetInstance();
}

// The protobuf library's own first use is not what is searched here.
void Prepare()
{
    Client();
    PPCMessage().SerializeAsString();
    ppcInit();
}

void SendHeartbeat(uint8_t processType)
{
    Client().SendHeartbeat(0, processType);
}

void RequireMessage(Peer& daemon, uint8_t type)
{
    const auto message = daemon.Receive();
    Require(message.has_value() && message->type == type, "the daemon reads another message");
}

void AskForCustomProcess()
{
    std::vector<std::string> libNames;
    Client().CreateOrFindCustPid(libNames, 1);
}

}  // namespace

SCENARIO_WITH(ClientDestroyAgainstWait, nullptr, Prepare)
{
    Listener listener;
    const int before = gaktest::OpenDescriptors();
    std::thread worker([] {
        Require(Client().GakWaitForShutdownProc(0, kCompute) != qel::kStatusOk, "a wait that was cut off succeeds");
    });
    {
        Peer daemon = listener.Accept();
        RequireMessage(daemon, kStartRsp);
        Client().Destroy();
        worker.join();
        Require(daemon.ReadsEnd(), "the daemon reads more than was sent");
    }
    Require(gaktest::OpenDescriptors() == before, "a descriptor of the client is left after Destroy");
}

// A receive loop that asks for its session while the client is destroyed does not open another one.
SCENARIO_WITH(ClientDestroyAgainstReceiveLoop, nullptr, Prepare)
{
    Listener listener;
    SendHeartbeat(kCompute);
    std::thread worker(
        [] { Require(Client().RecvData(0, kCompute) != qel::kStatusOk, "a wait that was cut off succeeds"); });
    Client().Destroy();
    worker.join();
}

// A heartbeat that opens a second session meanwhile leaves the client destroyed, or opens it again: never something in
// between, in which the receive loop opens a third session.
SCENARIO_WITH(ClientDestroyAgainstHeartbeat, nullptr, Prepare)
{
    Listener listener;
    SendHeartbeat(kCompute);
    std::thread sender(SendHeartbeat, kZolt);
    Client().Destroy();
    sender.join();
    std::thread worker([] { Client().RecvData(0, kZolt); });
    listener.Accept();
    listener.Accept();
    worker.join();
}

SCENARIO_WITH(ClientFirstUseByTwoThreads, nullptr, Prepare)
{
    Listener listener;
    std::thread sender(SendHeartbeat, kCompute);
    SendHeartbeat(kCompute);
    sender.join();
    Peer daemon = listener.Accept();
    RequireMessage(daemon, kHeartbeat);
    RequireMessage(daemon, kHeartbeat);
    Client().Destroy();
    Require(daemon.ReadsEnd(), "the daemon reads more than was sent");
}

SCENARIO_WITH(ClientCustomStartWakesEveryWaiter, nullptr, Prepare)
{
    Listener listener;
    SendHeartbeat(kCompute);
    std::thread worker([] { Client().RecvData(0, kCompute); });
    std::thread first(AskForCustomProcess);
    std::thread second(AskForCustomProcess);
    Peer daemon = listener.Accept();
    daemon.Send({kStartRsp, 0, 0, gaktest::kCustomCompute, 2});
    daemon.Send({gaktest::kShutdown, 0, 0, kCompute, 1});
    worker.join();
    Client().Destroy();
    first.join();
    second.join();
}

// A heartbeat records its device while the device for a request is looked up.
SCENARIO_WITH(ClientAsksForCustomProcessAgainstHeartbeats, nullptr, Prepare)
{
    Listener listener;
    SendHeartbeat(kCompute);
    std::thread worker([] { Client().RecvData(0, kCompute); });
    std::thread sender(SendHeartbeat, kCompute);
    std::thread asker(AskForCustomProcess);
    SendHeartbeat(kCompute);
    Peer daemon = listener.Accept();
    daemon.Send({kStartRsp, 0, 0, gaktest::kCustomCompute, 2});
    daemon.Send({gaktest::kShutdown, 0, 0, kCompute, 1});
    sender.join();
    asker.join();
    worker.join();
    Client().Destroy();
}

SCENARIO_WITH(ClientDestroyAgainstDestroy, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    {
        Listener listener;
        SendHeartbeat(kCompute);
        std::thread other([] { Client().Destroy(); });
        Client().Destroy();
        other.join();
    }
    Require(gaktest::OpenDescriptors() == before, "a descriptor of the client is left after Destroy");
}

// The daemon goes while messages are on their way in both directions.
SCENARIO_WITH(ClientDaemonGoes, nullptr, Prepare)
{
    Listener listener;
    std::thread worker([] { Client().GakWaitForShutdownProc(0, kCompute); });
    std::thread sender(SendHeartbeat, kCompute);
    listener.Accept().Receive();
    worker.join();
    sender.join();
    Client().Destroy();
}

// A connect that waits for a place in the daemon's queue holds up Destroy, and ends when the daemon accepts or goes.
SCENARIO_WITH(ClientDestroyAgainstConnectToAFullQueue, nullptr, Prepare)
{
    const int before = gaktest::OpenDescriptors();
    {
        Listener listener(0);
        SendHeartbeat(kCompute);
        std::thread first(SendHeartbeat, kZolt);
        std::thread second(SendHeartbeat, gaktest::kCustomCompute);
        std::thread destroyer([] { Client().Destroy(); });
        listener.Accept();
        listener.Accept();
        listener.Close();
        first.join();
        second.join();
        destroyer.join();
        Client().Destroy();
    }
    Require(gaktest::OpenDescriptors() == before, "a descriptor of the client is left after Destroy");
}
