// The life of the driver's records: calls in flight, references, the end, the quarantine.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "log_sink.h"
#include "peers.h"
#include "ppc.h"
#include "ppc_record.h"
#include "scenario.h"

namespace {

using gaktest::Listener;
using gaktest::Peer;
using gaktest::Require;
using ppc::PpcRecord;
using ppc::PpcSessionRef;

constexpr int kOtherServerId = 1;
constexpr int kEndpointsInQuarantine = 64;

PpcSession* Connect()
{
    PpcSession* session = nullptr;
    Require(drvPpcSessionConnect(gaktest::kServerId, &session) == PPC_OK, "the session cannot be connected");
    return session;
}

PpcServerHead* CreateEndpoint(int serverId)
{
    ppcInit();
    PpcServerHead* endpoint = nullptr;
    Require(drvPpcServerCreate(serverId, &endpoint) == PPC_OK, "the endpoint cannot be created");
    return endpoint;
}

int SendOn(PpcSession* session)
{
    static char payload[] = {10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    PpcMsg* message = nullptr;
    drvPpcAllocMsg(session, &message, 1);
    drvPpcAddMsgBuffer(message, payload, sizeof(payload));
    const int code = drvPpcSend(session, message, 0);
    drvPpcFreeMsg(message);
    return code;
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

void FillQuarantine()
{
    for (int endpoint = 0; endpoint < kEndpointsInQuarantine; ++endpoint) {
        drvPpcServerDestroy(CreateEndpoint(kOtherServerId));
    }
}

// For log sinks.
PpcSession* sinkSession = nullptr;
std::mutex sinkMutex;
std::condition_variable sinkCondition;
bool sinkMayGoOn = false;

void SendOnce()
{
    gaktest::logSink.onLine = nullptr;
    SendOn(sinkSession);
}

void WaitOnce()
{
    gaktest::logSink.onLine = nullptr;
    std::unique_lock<std::mutex> lock(sinkMutex);
    sinkCondition.wait(lock, [] { return sinkMayGoOn; });
}

}  // namespace

SCENARIO(RecordCloseAgainstReceiveAndSend)
{
    const int before = gaktest::OpenDescriptors();
    ppcInit();
    {
        Listener listener;
        PpcSession* session = Connect();
        const PpcSessionRef held(session);
        std::thread receiver([held, session] { Require(ReceiveOn(session) != PPC_OK, "nothing was sent"); });
        std::thread sender([held, session] { SendOn(session); });
        Require(drvPpcSessionDestroy(session) == PPC_OK, "the session cannot be ended");
        receiver.join();
        sender.join();
    }
    Require(gaktest::OpenDescriptors() == before, "a descriptor is left after its session's end");
}

SCENARIO(RecordEndsOnce)
{
    ppcInit();
    Listener listener;
    PpcSession* session = Connect();
    static std::atomic<int> ends{0};
    const auto end = [session] { ends += drvPpcSessionDestroy(session) == PPC_OK ? 1 : 0; };
    std::thread other(end);
    end();
    other.join();
    Require(ends == 1, "the session was not ended exactly once");
}

// A descriptor number that comes back at once belongs to another session: a sender that comes late does not reach it.
SCENARIO(RecordNumberComesBack)
{
    ppcInit();
    Listener listener;
    PpcSession* first = Connect();
    const PpcSessionRef held(first);
    std::thread sender([held, first] { SendOn(first); });
    drvPpcSessionDestroy(first);
    PpcSession* second = Connect();
    sender.join();
    drvPpcSessionDestroy(second);
    listener.Accept();
    Require(listener.Accept().ReadsEnd(), "the second session carries a message of the first");
}

// While somebody holds an ended session, its memory does not become another one.
SCENARIO(RecordHeldKeepsItsAddress)
{
    ppcInit();
    Listener listener;
    PpcSession* first = Connect();
    PpcSessionRef held(first);
    std::thread sender([held = std::move(held), first] { SendOn(first); });
    std::thread holder([first] { const PpcSessionRef late(first); });
    drvPpcSessionDestroy(first);
    PpcSession* second = Connect();
    Require(second != first, "a held session's address comes back");
    sender.join();
    holder.join();
    drvPpcSessionDestroy(second);
}

SCENARIO(RecordCopiesOfAReferenceInSeveralThreads)
{
    ppcInit();
    Listener listener;
    PpcSession* session = Connect();
    PpcSessionRef held(session);
    const auto copyAndSend = [held, session] {
        const PpcSessionRef copy = held;  // NOLINT(performance-unnecessary-copy-initialization): it holds
        SendOn(session);
    };
    std::thread first(copyAndSend);
    std::thread second(copyAndSend);
    drvPpcSessionDestroy(session);
    held = PpcSessionRef();
    first.join();
    second.join();
}

SCENARIO(EndpointDestroyAgainstAccept)
{
    const int before = gaktest::OpenDescriptors();
    PpcServerHead* endpoint = CreateEndpoint(gaktest::kServerId);
    const auto accept = [endpoint] {
        PpcSession* session = nullptr;
        Require(drvPpcSessionAccept(endpoint, &session) == PPC_ERR_SOCKET_CLOSED,
                "accepting on an ended endpoint returns something else");
    };
    std::thread first(accept);
    std::thread second(accept);
    ppc::PpcStopAccept(endpoint);
    Require(drvPpcServerDestroy(endpoint) == PPC_OK, "the endpoint cannot be ended");
    first.join();
    second.join();
    Require(gaktest::OpenDescriptors() == before, "a descriptor is left after its endpoint's end");
}

// The quarantine is full, and as many more endpoints end as it takes to free this one behind its last reference.
SCENARIO_WITH(EndpointLeavesQuarantine, nullptr, FillQuarantine)
{
    PpcServerHead* endpoint = CreateEndpoint(gaktest::kServerId);
    const auto acceptAndRelease = [endpoint](const ppc::PpcRecordRef&) {
        PpcSession* session = nullptr;
        drvPpcSessionAccept(endpoint, &session);
    };
    std::thread first(acceptAndRelease, PpcRecord::Acquire(PpcRecord::Kind::kServer, endpoint));
    std::thread second(acceptAndRelease, PpcRecord::Acquire(PpcRecord::Kind::kServer, endpoint));
    drvPpcServerDestroy(endpoint);
    for (int other = 0; other < kEndpointsInQuarantine + 1; ++other) {
        drvPpcServerDestroy(CreateEndpoint(kOtherServerId));
    }
    first.join();
    second.join();
}

// The log's own way to its reader may lead over the session that a line is about.
SCENARIO(SendWhoseLogLineSendsOnTheSameSession)
{
    ppcInit();
    Listener listener;
    sinkSession = Connect();
    listener.Accept();
    gaktest::logSink.onLine = SendOnce;
    Require(SendOn(sinkSession) == PPC_ERR_SEND, "a message to nobody is sent");
    drvPpcSessionDestroy(sinkSession);
}

// A log that blocks holds up the thread that writes the line, and nobody else: of two senders one gets through.
SCENARIO(SendWhoseLogLineBlocksHoldsUpNobodyElse)
{
    ppcInit();
    Listener listener;
    PpcSession* session = Connect();
    const PpcSessionRef held(session);
    listener.Accept();
    gaktest::logSink.onLine = WaitOnce;
    static int sendersDone = 0;
    const auto send = [held, session] {
        SendOn(session);
        const std::lock_guard<std::mutex> lock(sinkMutex);
        ++sendersDone;
        sinkCondition.notify_all();
    };
    std::thread first(send);
    std::thread second(send);
    {
        std::unique_lock<std::mutex> lock(sinkMutex);
        sinkCondition.wait(lock, [] { return sendersDone > 0; });
        sinkMayGoOn = true;
    }
    sinkCondition.notify_all();
    first.join();
    second.join();
    drvPpcSessionDestroy(session);
}
