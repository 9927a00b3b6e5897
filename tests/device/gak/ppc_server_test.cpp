#include "ppc_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "driver_calls.h"
#include "free_counter.h"
#include "last_exit_handler.h"
#include "server_fixture.h"
#include "server_lines.h"
#include "tracer.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using qel::PpcServer;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

std::string DestroyLine(uint32_t serverId = kServerId)
{
    return Plain("Destroy", "[GAKPPCSER] Destory ppc sever [serverId=" + std::to_string(serverId) +
                                "] [pid=" + std::to_string(getpid()) + "]");
}

const std::string kDestroySessionLine = Plain("Destroy", "[GAKPPCSER] Destory ppc session serverId_=19280");

using PpcServerTest = ServerTest;

// A hook of drvPpcServerCreate that keeps the endpoint.
class EndpointHook {
public:
    EndpointHook()
    {
        hook_.OnCall([this](uint64_t, int id, PpcServerHead** server) -> std::optional<int> {
            const int result = CountingHook<DriverServerCreate>::Real(id, server);
            endpoint_ = *server;
            return result;
        });
    }
    PpcServerHead* Endpoint() const { return endpoint_; }
    uint64_t Count() const { return hook_.Count(); }

private:
    PpcServerHead* endpoint_ = nullptr;
    CountingHook<DriverServerCreate> hook_;
};

// ---- The class ----

TEST(PpcServerClassTest, IsACodecWithAVirtualDestructor)
{
    EXPECT_TRUE((std::is_base_of_v<qel::PpcInterface, PpcServer>));
    EXPECT_TRUE((std::is_convertible_v<PpcServer*, qel::PpcInterface*>));
    EXPECT_TRUE(std::has_virtual_destructor_v<PpcServer>);
}

TEST(PpcServerClassTest, ThereIsOneInstance)
{
    EXPECT_EQ(&PpcServer::GetInstance(), &PpcServer::GetInstance());
}

// ---- CreateServer ----

TEST_F(PpcServerTest, CreateServerListensAndStartsTheAcceptThread)
{
    EXPECT_FALSE(server_.IsPPCServerRunning());
    Create();
    EXPECT_TRUE(server_.IsPPCServerRunning());
    EXPECT_THAT(
        ServerLines(log_),
        ElementsAre(Plain("CreateServer", "[GAKPPCSER] [serverId=19280] ppcserver receive thread started succ")));
    EXPECT_TRUE(ThreadsBecome("ppc_srv_accept", 1));
    EXPECT_TRUE(Dial().valid());
}

TEST_F(PpcServerTest, CreateServerWhileRunningIsANoOp)
{
    Create();
    log_.Clear();
    const Baseline before;
    CountingHook<DriverInit> inits;
    EXPECT_EQ(server_.CreateServer(kServerId + 1), kOk);
    EXPECT_EQ(inits.Count(), 0u);
    EXPECT_TRUE(before.Returned());
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_FALSE(RawConnect(kServerId + 1).valid());
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ServerLines(log_), Contains(DestroyLine(kServerId)));
}

TEST_F(PpcServerTest, FailingDriverInitIsReported)
{
    const Baseline before;
    CountingHook<DriverInit> init;
    CountingHook<DriverServerCreate> creates;
    init.FailCall(1, 7, 0);
    EXPECT_EQ(server_.CreateServer(kServerId), 0x1093030u);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(WithStatus(0x1093030, "CreateServer", "[GAKPPCSER] drvPpcInit return 7")));
    EXPECT_EQ(creates.Count(), 0u);
    EXPECT_FALSE(server_.IsPPCServerRunning());
    EXPECT_TRUE(before.Returned());
}

TEST_F(PpcServerTest, FailingEndpointIsReportedWithItsResult)
{
    unlink(SocketPath(kServerId).c_str());
    ASSERT_EQ(mkdir(SocketPath(kServerId).c_str(), 0700), 0);  // nothing can be bound there
    const Baseline before;
    EXPECT_EQ(server_.CreateServer(kServerId), 0x1093031u);
    EXPECT_EQ(rmdir(SocketPath(kServerId).c_str()), 0);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(WithStatus(0x1093031, "CreateServer", "[GAKPPCSER] drvPpcServerCreate return 20")));
    EXPECT_FALSE(server_.IsPPCServerRunning());
    EXPECT_TRUE(before.Returned());
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_EQ(server_.CreateServer(kServerId), kOk);
}

TEST_F(PpcServerTest, NullEndpointIsReportedAsReturnZero)
{
    CountingHook<DriverServerCreate> creates;
    creates.OnCall([](uint64_t, int id, PpcServerHead** server) -> std::optional<int> {
        EXPECT_EQ(id, static_cast<int>(kServerId));
        EXPECT_EQ(*server, nullptr);
        return PPC_OK;
    });
    EXPECT_EQ(server_.CreateServer(kServerId), 0x1093031u);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(WithStatus(0x1093031, "CreateServer", "[GAKPPCSER] drvPpcServerCreate return 0")));
    EXPECT_FALSE(server_.IsPPCServerRunning());
}

TEST_F(PpcServerTest, EndpointLeftByAFailingDriverIsTornDownByDestroy)
{
    const Baseline before;
    CountingHook<DriverServerDestroy> destroys;
    {
        const FailingHook<DriverServerCreate> creates(PPC_ERR_SOCKET_LISTEN);
        EXPECT_EQ(server_.CreateServer(kServerId), 0x1093031u);
    }
    EXPECT_FALSE(server_.IsPPCServerRunning());
    EXPECT_EQ(destroys.Count(), 0u);
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ServerLines(log_), ElementsAre(DestroyLine()));
    EXPECT_EQ(destroys.Count(), 1u);
    EXPECT_TRUE(before.Returned());
}

TEST_F(PpcServerTest, AcceptThreadThatCannotBeStartedLeavesNoServer)
{
    const Baseline before;
    CountingHook<DriverServerDestroy> destroys;
    {
        CountingHook<calls::StdThreadCreate> starts;
        starts.FailCall(1, EAGAIN, 0);
        EXPECT_EQ(server_.CreateServer(kServerId), 0x1093031u);
    }
    EXPECT_FALSE(server_.IsPPCServerRunning());
    EXPECT_EQ(destroys.Count(), 1u);
    EXPECT_EQ(log_.Count(LogSink::kError, "Create PPC server or PPC client fail"), 1u);
    EXPECT_EQ(log_.Count("started succ"), 0u);
    EXPECT_FALSE(Dial().valid());
    EXPECT_TRUE(before.Returned());
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(log_.Lines(), IsEmpty());
    Create();
    EXPECT_TRUE(Dial().valid());
}

TEST_F(PpcServerTest, ManyThreadsCreateOneServer)
{
    CountingHook<DriverServerCreate> creates;
    std::vector<std::future<uint32_t>> results;
    for (int i = 0; i < 8; ++i) {
        results.push_back(std::async(std::launch::async, [this] { return server_.CreateServer(kServerId); }));
    }
    for (std::future<uint32_t>& result : results) {
        EXPECT_EQ(result.get(), kOk);
    }
    EXPECT_EQ(creates.Count(), 1u);
    EXPECT_EQ(log_.Count("started succ"), 1u);
    EXPECT_TRUE(ThreadsBecome("ppc_srv_accept", 1));
}

TEST_F(PpcServerTest, SecondOfTwoThreadsThatCreateAtOnceUsesTheServerOfTheFirst)
{
    std::atomic<bool> secondHasCome{false};
    CountingHook<MutexLock> locks;
    locks.OnCall([&, first = std::this_thread::get_id()](uint64_t, pthread_mutex_t*) -> std::optional<int> {
        secondHasCome = secondHasCome || std::this_thread::get_id() != first;
        return std::nullopt;
    });
    std::future<uint32_t> second;
    CountingHook<DriverInit> inits;
    inits.OnCall([&](uint64_t number) -> std::optional<int> {
        if (number == 1) {
            second = std::async(std::launch::async, [this] { return server_.CreateServer(kServerId + 1); });
            EXPECT_TRUE(WaitUntil([&] { return secondHasCome.load(); }, 10s));
        }
        return std::nullopt;
    });
    EXPECT_EQ(server_.CreateServer(kServerId), kOk);
    EXPECT_EQ(second.get(), kOk);
    EXPECT_EQ(inits.Count(), 1u);
    EXPECT_TRUE(Dial().valid());
    EXPECT_FALSE(RawConnect(kServerId + 1).valid());
}

// ---- Accepting ----

TEST_F(PpcServerTest, ThreadsCarryTheirNamesInTheSystem)
{
    Create();
    const Fd first = Connect();
    const Fd second = Connect();
    for (const char* name : {"ppc_srv_accept", "ppc_srv_recv_0", "ppc_srv_recv_1"}) {
        EXPECT_TRUE(ThreadsBecome(name, 1));
    }
}

TEST_F(PpcServerTest, FailedAcceptIsLoggedAndTriedAgain)
{
    accepts_.FailCalls(1, 3, PPC_ERR_SOCKET_ACCEPT, 0);
    Create();
    ASSERT_TRUE(log_.WaitFor("continue", 10s, 3));
    const Fd worker = ConnectAs(1, 7);
    EXPECT_THAT(ServerLines(log_, "ppc_srv_accept"),
                ElementsAre(Plain("AcceptConnection", "[GAKPPCSER] drvPpcSessionAccept() [return:22] continue"),
                            Plain("AcceptConnection", "[GAKPPCSER] drvPpcSessionAccept() [return:22] continue"),
                            Plain("AcceptConnection", "[GAKPPCSER] drvPpcSessionAccept() [return:22] continue")));
}

TEST_F(PpcServerTest, AcceptThreadThatLosesItsEndpointLeavesTheServerRunning)
{
    const EndpointHook endpoint;
    Create();
    ASSERT_EQ(drvPpcServerDestroy(endpoint.Endpoint()), PPC_OK);
    EXPECT_TRUE(ThreadsBecome("ppc_srv_accept", 0));
    EXPECT_THAT(ServerLines(log_, "ppc_srv_accept"),
                ElementsAre(Plain("AcceptConnection", "[GAKPPCSER] drvPpcSessionAccept() [return:25] continue"),
                            WithStatus(0x109303F, "AcceptConnection",
                                       "[GAKPPCSER] drvPpcSessionAccept receive socket close msg,server exit")));
    EXPECT_TRUE(server_.IsPPCServerRunning());
    EXPECT_EQ(server_.CreateServer(kServerId), kOk);  // still running: does nothing
    EXPECT_EQ(endpoint.Count(), 1u);
}

TEST_F(PpcServerTest, DestroyAfterTheAcceptThreadEndedReportsTheDeadEndpoint)
{
    const EndpointHook endpoint;
    Create();
    ASSERT_EQ(drvPpcServerDestroy(endpoint.Endpoint()), PPC_OK);
    EXPECT_TRUE(ThreadsBecome("ppc_srv_accept", 0));
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(DestroyLine(), WithStatus(0x1093032, "Destroy", "[GAKPPCSER] Destory ppc sever failed")));
    EXPECT_FALSE(server_.IsPPCServerRunning());
}

TEST_F(PpcServerTest, AcceptConnectionReturnsTheSocketClosedStatus)
{
    const EndpointHook endpoint;
    Create();
    ASSERT_EQ(drvPpcServerDestroy(endpoint.Endpoint()), PPC_OK);
    EXPECT_EQ(std::async(std::launch::async, [this] { return server_.AcceptConnection(); }).get(), 0x109303Fu);
}

TEST_F(PpcServerTest, AcceptConnectionReturnsAtOnceWhenTheServerDoesNotRun)
{
    EXPECT_EQ(std::async(std::launch::async, [this] { return server_.AcceptConnection(); }).get(), kOk);
    EXPECT_EQ(accepts_.Count(), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcServerTest, ReceiveThreadThatCannotBeStartedClosesItsSessionOnly)
{
    Create();
    log_.Clear();
    {
        CountingHook<calls::StdThreadCreate> starts;
        starts.FailCall(1, EAGAIN, 0);
        const Fd refused = Connect();
        EXPECT_TRUE(ExpectEof(refused, 10s));
    }
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_EQ(log_.Count(LogSink::kError, "[GAKPPCSER]"), 1u);
    const Fd worker = ConnectAs(1, 7);
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_0", 1));
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(log_.Count("Destory ppc session serverId_"), 1u);
}

// The driver keeps 4096 sessions that have ended, and frees the others once nobody refers to them any more.
TEST_F(PpcServerTest, SessionWhoseThreadCannotBeStartedIsNotReferredToAnyMore)
{
    Create();
    log_.SetMinimumLevel(99);
    CountingHook<calls::Malloc> taken;
    const FreeCounter freed;
    {
        CountingHook<calls::StdThreadCreate> starts;
        starts.FailCall(1, EAGAIN, 0);
        EXPECT_TRUE(ExpectEof(Connect(), 10s));
    }
    const Fd listener = RawListen(kServerId + 1);
    for (int number = 0; number < 4096; ++number) {
        PpcSession* session = nullptr;
        ASSERT_EQ(drvPpcSessionConnect(kServerId + 1, &session), PPC_OK);
        ASSERT_EQ(drvPpcSessionDestroy(session), PPC_OK);
        RawAccept(listener, 5s).Reset();
    }
    EXPECT_EQ(taken.Count() - freed.Count(), 4096u);
}

// The thread that accepts finds no memory, once, for one of the things that it stores about a session.
class PpcServerNoMemoryTest : public PpcServerTest, public testing::WithParamInterface<uint64_t> {};

TEST_P(PpcServerNoMemoryTest, SessionThatCannotBeStoredIsClosedAlone)
{
    Create();
    log_.Clear();
    {
        CountingHook<calls::OperatorNew> news;
        news.OnCall([](uint64_t number, size_t) -> std::optional<void*> {
            if (number == GetParam()) {
                throw std::bad_alloc();
            }
            return std::nullopt;
        });
        const Fd refused = Connect();
        EXPECT_TRUE(ExpectEof(refused, 10s));
    }
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_EQ(log_.Count(LogSink::kError, "session closed"), 1u);
    const Fd worker = ConnectAs(1, 7);
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_0", 1));
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(log_.Count("Destory ppc session serverId_"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Block, PpcServerNoMemoryTest, testing::Range<uint64_t>(1, 7));

// ---- SendData ----

struct AddressCase {
    const char* name;
    uint32_t device;
    int processType;
    uint32_t status;
    const char* message;
};

std::ostream& operator<<(std::ostream& out, const AddressCase& param)
{
    return out << param.name;
}

class PpcServerAddressTest : public PpcServerTest, public testing::WithParamInterface<AddressCase> {};

TEST_P(PpcServerAddressTest, SendDataChecksDeviceAndProcessType)
{
    PPCMessage msg = Order(GetParam().device, 7);
    msg.set_proc_type(static_cast<PPCMessage::ProcessType>(GetParam().processType));
    EXPECT_EQ(server_.SendData(msg), GetParam().status);
    std::vector<std::string> expected{WithStatus(GetParam().status, "SendData", GetParam().message)};
    if (GetParam().status == 0x1093036) {
        expected.insert(expected.begin(), LookupLine(GetParam().device, 7));
    }
    EXPECT_EQ(ServerLines(log_), expected);
}

constexpr char kBadDevice[] = "[GAKPPCSER] GetPpcSession() deviceId >= MAX_DEVNUM_PER_OS invalid param";
constexpr char kBadProcessType[] = "[GAKPPCSER] GetPpcSession() proctype > CUSTOM_COMPUTE invalid param";

INSTANTIATE_TEST_SUITE_P(Addresses, PpcServerAddressTest,
                         testing::Values(AddressCase{"Device4", 4, 0, 0x109303D, kBadDevice},
                                         AddressCase{"LargestDevice", 0xFFFFFFFF, 0, 0x109303D, kBadDevice},
                                         AddressCase{"DeviceIsCheckedFirst", 4, 3, 0x109303D, kBadDevice},
                                         AddressCase{"ProcessType3", 3, 3, 0x109303D, kBadProcessType},
                                         AddressCase{"Device3ProcessType2", 3, 2, 0x1093036,
                                                     "[GAKPPCSER] SendData() failed, session not exist deviceId:3 "
                                                     "procType:2(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE)"},
                                         AddressCase{"NegativeProcessTypePasses", 0, -1, 0x1093036,
                                                     "[GAKPPCSER] SendData() failed, session not exist deviceId:0 "
                                                     "procType:4294967295(0:ZOLT,1:COMPUTE,2:CUSTOM_COMPUTE)"}),
                         [](const testing::TestParamInfo<AddressCase>& param) { return param.param.name; });

TEST_F(PpcServerTest, SendDataReachesTheWorkerOfTheProcessOnly)
{
    std::vector<std::unique_ptr<WorkerProcess>> workers;
    for (uint32_t pid = 10; pid < 14; ++pid) {
        workers.push_back(std::make_unique<WorkerProcess>([pid](Fd& socket) {
            const RawMessage order{5, 0, pid % 2, 0, pid, 0, {}};
            return WriteAll(socket, PpcFrame(Report(pid % 2, pid))) && ReadPpcFrame(socket, 20s) == order &&
                           ExpectEof(socket, 20s)
                       ? 0
                       : 1;
        }));
    }
    Create();
    for (const std::unique_ptr<WorkerProcess>& worker : workers) {
        worker->Start();
    }
    ASSERT_TRUE(log_.WaitFor("##### [threadName:", 20s, 4));
    for (uint32_t pid = 10; pid < 14; ++pid) {
        EXPECT_EQ(server_.SendData(Order(pid % 2, pid)), kOk);
    }
    EXPECT_EQ(server_.Destroy(), kOk);
    for (const std::unique_ptr<WorkerProcess>& worker : workers) {
        EXPECT_TRUE(worker->Process().WaitExit(20s).ExitedWith(0));
    }
}

TEST_F(PpcServerTest, ProcessTypeIsNotPartOfTheAddress)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    PPCMessage msg = Order(1, 7);
    for (const auto type : {PPCMessage::ZOLT, PPCMessage::COMPUTE, PPCMessage::CUSTOM_COMPUTE}) {
        msg.set_proc_type(type);
        EXPECT_EQ(server_.SendData(msg), kOk);
        EXPECT_EQ(ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 1, static_cast<uint32_t>(type), 7, 0, {}}));
    }
}

// A pointer that the driver never made goes to the driver as it is. It lies in no mapped page.
TEST_F(PpcServerTest, PointerFromElsewhereIsHandedToTheDriver)
{
    auto* const foreign = reinterpret_cast<PpcSession*>(0x1230);
    PpcMsg* const descriptor = reinterpret_cast<PpcMsg*>(0x4560);
    CountingHook<DriverAllocMsg> alloc;
    alloc.OnCall([&](uint64_t, PpcSession* session, PpcMsg** msg, int) -> std::optional<int> {
        EXPECT_EQ(session, foreign);
        *msg = descriptor;
        return PPC_OK;
    });
    CountingHook<DriverAddMsgBuffer> add;
    add.FailFrom(1, PPC_OK, 0);
    CountingHook<DriverSend> send;
    send.OnCall([&](uint64_t, PpcSession* session, PpcMsg* msg, uint32_t) -> std::optional<int> {
        EXPECT_EQ(session, foreign);
        EXPECT_EQ(msg, descriptor);
        return PPC_OK;
    });
    CountingHook<DriverFreeMsg> release;
    release.FailFrom(1, PPC_OK, 0);

    server_.SetPpcSession(1, 7, foreign);
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(send.Count(), 1u);
    server_.SetPpcSession(1, 7, nullptr);
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093036u);
}

TEST_F(PpcServerTest, ResultOfSendingIsReturnedUnchanged)
{
    void* const foreign = reinterpret_cast<void*>(0x1230);
    server_.SetPpcSession(1, 7, foreign);
    CountingHook<DriverAllocMsg> alloc;
    alloc.FailFrom(1, PPC_OK, 0);
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093039u);
}

// ---- Destroy ----

TEST_F(PpcServerTest, DestroyOfANeverCreatedServerDoesNothing)
{
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcServerTest, SecondDestroyDoesNothing)
{
    Create();
    EXPECT_EQ(server_.Destroy(), kOk);
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcServerTest, DestroyLogsTheServerAndEverySession)
{
    Create();
    const Fd first = Connect();
    const Fd second = Connect();
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(LinesOfFunction("Destroy"), ElementsAre(DestroyLine(), kDestroySessionLine, kDestroySessionLine));
}

TEST_F(PpcServerTest, DestroySkipsSessionsThatCannotBeClosed)
{
    Create();
    const Fd first = Connect();
    const Fd second = Connect();
    log_.Clear();
    closes_.OnCall([](uint64_t number, PpcSession* session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionClose>::Real(session);
        return number == 1 ? PPC_ERR_INVALID_VALUE : result;
    });
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(
        LinesOfFunction("Destroy"),
        ElementsAre(DestroyLine(), kDestroySessionLine,
                    WithStatus(0x1093032, "Destroy", "[GAKPPCSER] Destory ppc session failed"), kDestroySessionLine));
}

TEST_F(PpcServerTest, DestroyReportsAnEndpointThatCannotBeDestroyed)
{
    Create();
    log_.Clear();
    {
        const FailingHook<DriverServerDestroy> destroys(PPC_ERR_INVALID_VALUE);
        EXPECT_EQ(server_.Destroy(), kOk);
        EXPECT_EQ(destroys.Count(), 1u);
    }
    EXPECT_THAT(LinesOfFunction("Destroy"),
                ElementsAre(DestroyLine(), WithStatus(0x1093032, "Destroy", "[GAKPPCSER] Destory ppc sever failed")));
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(PpcServerTest, OrderlyStopLogsNoError)
{
    Create();
    log_.Clear();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(DestroyLine(), Plain("AcceptConnection",
                                                 "[GAKPPCSER] accept connection runningflag has been set false, "
                                                 "drvRet = 25")));
    for (const LogLine& line : log_.Lines()) {
        EXPECT_NE(line.sink, LogSink::kError) << line;
    }
}

// Accepting ends, then the sessions in the order of their acceptance, then their threads, then the endpoint.
TEST_F(PpcServerTest, DestroyEndsThingsInOrder)
{
    const EndpointHook endpoint;
    Create();
    const Fd first = ConnectAs(1, 1);
    const Fd second = ConnectAs(1, 2);
    std::vector<void*> ended;
    const std::thread::id destroyer = std::this_thread::get_id();
    closes_.OnCall([&](uint64_t, PpcSession* session) -> std::optional<int> {
        if (std::this_thread::get_id() == destroyer) {
            EXPECT_TRUE(ThreadsBecome("ppc_srv_accept", 0));
            EXPECT_FALSE(server_.IsPPCServerRunning());
            ended.push_back(session);
        }
        return std::nullopt;
    });
    CountingHook<DriverServerDestroy> destroys;
    destroys.OnCall([&](uint64_t, PpcServerHead* server) -> std::optional<int> {
        EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_0", 0));
        EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 0));
        ended.push_back(server);
        return std::nullopt;
    });
    void* const sessions[] = {server_.GetPpcSession(1, 1), server_.GetPpcSession(1, 2)};
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ended, ElementsAre(sessions[0], sessions[1], endpoint.Endpoint()));
    EXPECT_EQ(destroys.Count(), 1u);
}

TEST_F(PpcServerTest, DestroyReturnsThreadsAndDescriptorsToTheBaseline)
{
    const Baseline before;
    Create();
    {
        std::vector<Fd> workers;
        for (uint32_t pid = 0; pid < 12; ++pid) {
            workers.push_back(pid % 2 == 0 ? Connect() : ConnectAs(pid % 4, pid));
        }
        workers.resize(9);
        ASSERT_TRUE(WaitForExits(3));
        EXPECT_EQ(server_.Destroy(), kOk);
        for (const Fd& worker : workers) {
            EXPECT_TRUE(ExpectEof(worker, 10s));
        }
    }
    EXPECT_TRUE(before.Returned());
    EXPECT_FALSE(server_.IsPPCServerRunning());
    EXPECT_FALSE(Dial().valid());
}

TEST_F(PpcServerTest, DestroyWithIdleSessionsWaitsForNoTimeToPass)
{
    const CountingHook<calls::Poll> timedWaits;
    Create();
    std::vector<Fd> workers;
    for (int i = 0; i < 12; ++i) {
        workers.push_back(Connect());
    }
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(timedWaits.Count(), 0u);
}

TEST_F(PpcServerTest, DestroyFreesASenderThatWaitsForAStoppedWorker)
{
    WorkerProcess worker([](Fd& socket) {
        WriteAll(socket, PpcFrame(Report(1, 7)));
        raise(SIGSTOP);
        return 0;
    });
    Create();
    worker.Start();
    ASSERT_TRUE(log_.WaitFor("##### [threadName:", 10s));
    CountingHook<calls::Writev> writes;
    auto sent = std::async(std::launch::async, [this] {
        PPCMessage msg = Order(1, 7);
        msg.mutable_lib_names()->add_lib_name(std::string(8U << 20, 'x'));  // more than a socket takes
        return server_.SendData(msg);
    });
    ASSERT_TRUE(WaitUntil([&] { return writes.Count() == 1; }, 10s));
    EXPECT_EQ(sent.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(sent.get(), 0x1093037u);
    worker.Process().Kill(SIGKILL);
    EXPECT_TRUE(worker.Process().WaitExit(10s).KilledBy(SIGKILL));
}

// The connection has been taken from the system, but the server is told so only after Destroy has begun.
TEST_F(PpcServerTest, SessionAcceptedDuringDestroyIsClosedOnce)
{
    Handle(2);
    const Baseline before;
    std::promise<void> taken;
    accepts_.OnCall([&](uint64_t number, PpcServerHead* server, PpcSession** session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionAccept>::Real(server, session);
        if (number == 1) {
            taken.set_value();
            EXPECT_TRUE(WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
        }
        return result;
    });
    Create();
    {
        const Fd worker = Dial();
        EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
        taken.get_future().wait();
        EXPECT_EQ(server_.Destroy(), kOk);
        EXPECT_TRUE(ExpectEof(worker, 10s));
    }
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_THAT(LinesOfFunction("AcceptConnection"),
                ElementsAre(Plain("AcceptConnection",
                                  "[GAKPPCSER] accept connection runningflag has been set false, drvRet = 0")));
    EXPECT_THAT(LinesOfFunction("Destroy"), ElementsAre(DestroyLine()));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_TRUE(before.Returned());
}

// The accept thread has been told of the connection, and Destroy begins before it says that there is something to
// receive.
TEST_F(PpcServerTest, SessionAcceptedRightBeforeDestroyIsClosedOnce)
{
    Handle(2);
    const Baseline before;
    std::atomic<bool> accepted{false};
    std::promise<void> taken;
    accepts_.OnCall([&](uint64_t number, PpcServerHead* server, PpcSession** session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionAccept>::Real(server, session);
        accepted = number == 1;
        return result;
    });
    CountingHook<MutexLock> locks;
    Create();
    locks.OnCall([&](uint64_t, pthread_mutex_t*) -> std::optional<int> {
        if (accepted.exchange(false)) {
            taken.set_value();
            EXPECT_TRUE(WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
        }
        return std::nullopt;
    });
    {
        const Fd worker = Dial();
        EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
        taken.get_future().wait();
        EXPECT_EQ(server_.Destroy(), kOk);
        EXPECT_TRUE(ExpectEof(worker, 10s));
    }
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_EQ(log_.Count("runningflag has been set false, drvRet = 0"), 1u);
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_TRUE(before.Returned());
}

TEST_F(PpcServerTest, ConnectionNotYetAcceptedIsClosedByDestroy)
{
    std::promise<void> leave;
    accepts_.OnCall([&](uint64_t, PpcServerHead*, PpcSession**) -> std::optional<int> {
        leave.get_future().wait();
        return std::nullopt;
    });
    Create();
    const Fd worker = Dial();
    ASSERT_TRUE(worker.valid());
    auto destroyed = std::async(std::launch::async, [this] { return server_.Destroy(); });
    EXPECT_TRUE(WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
    leave.set_value();
    EXPECT_EQ(destroyed.get(), kOk);
    EXPECT_TRUE(ExpectEof(worker, 10s));
}

// Counts the accepted sessions and the successful closes; each session must be closed by exactly one call.
TEST_F(PpcServerTest, NoSessionLeaksOrIsClosedTwiceWhenWorkersConnectDuringDestroy)
{
    const Baseline before;
    std::atomic<int> accepted{0};
    std::atomic<int> closed{0};
    accepts_.OnCall([&](uint64_t, PpcServerHead* server, PpcSession** session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionAccept>::Real(server, session);
        accepted += result == PPC_OK ? 1 : 0;
        return result;
    });
    closes_.OnCall([&](uint64_t, PpcSession* session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionClose>::Real(session);
        closed += result == PPC_OK ? 1 : 0;
        return result;
    });
    for (int round = 0; round < 5; ++round) {
        Create();
        const int acceptedBefore = accepted;
        std::atomic<bool> stop{false};
        std::vector<std::future<void>> dialers;
        for (int i = 0; i < 2; ++i) {
            dialers.push_back(std::async(std::launch::async, [&] {
                while (!stop) {
                    const Fd worker = Dial();
                    if (worker.valid()) {
                        WriteAll(worker, PpcFrame(Report(1, 7)));
                    }
                }
            }));
        }
        EXPECT_TRUE(WaitUntil([&] { return accepted >= acceptedBefore + 5; }, 10s));
        EXPECT_EQ(server_.Destroy(), kOk);
        stop = true;
    }
    EXPECT_EQ(accepted, closed);
    EXPECT_TRUE(before.Returned());
}

TEST_F(PpcServerTest, SeveralThreadsMayDestroyAtOnce)
{
    const Baseline before;
    Create();
    const Fd worker = Connect();
    log_.Clear();
    CountingHook<DriverServerDestroy> destroys;
    std::vector<std::future<uint32_t>> results;
    for (int i = 0; i < 4; ++i) {
        results.push_back(std::async(std::launch::async, [this] { return server_.Destroy(); }));
    }
    for (std::future<uint32_t>& result : results) {
        EXPECT_EQ(result.get(), kOk);
    }
    EXPECT_EQ(destroys.Count(), 1u);
    EXPECT_EQ(log_.Count("Destory ppc sever [serverId"), 1u);
    EXPECT_EQ(log_.Count("Destory ppc session serverId_"), 1u);
}

// The second call meets the first one where that clears the tables.
TEST_F(PpcServerTest, SecondOfTwoDestroysReturnsWhenTheTablesAreClear)
{
    Create();
    std::atomic<bool> clearing{false};
    CountingHook<DriverServerDestroy> destroys;
    destroys.OnCall([&](uint64_t, PpcServerHead* server) -> std::optional<int> {
        const int result = CountingHook<DriverServerDestroy>::Real(server);
        clearing = true;
        return result;
    });
    std::atomic<bool> waits{false};
    std::atomic<bool> returned{false};
    std::atomic<bool> registered{false};
    std::future<void> second;
    CountingHook<MutexLock> locks;
    locks.OnCall([&, first = std::this_thread::get_id()](uint64_t, pthread_mutex_t*) -> std::optional<int> {
        if (std::this_thread::get_id() != first) {
            waits = waits || !returned;
        } else if (clearing.exchange(false)) {
            second = std::async(std::launch::async, [&] {
                EXPECT_EQ(server_.Destroy(), kOk);
                returned = true;
                Handle(2);
                registered = true;
            });
            EXPECT_TRUE(WaitUntil([&] { return waits || registered; }, 10s));
        }
        return std::nullopt;
    });
    EXPECT_EQ(server_.Destroy(), kOk);
    second.get();
    server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(PpcServerTest, DestroyInsideAHandlerIsRefused)
{
    std::promise<uint32_t> result;
    Handle(2);
    Inbox::OnMessage([&](const PPCMessage& msg) {
        if (msg.type() == PPCMessage::HEARTBEAT) {
            result.set_value(server_.Destroy());
        }
    });
    Create();
    const Fd worker = Connect();
    Say(worker, Report(1, 7, 2));
    EXPECT_EQ(result.get_future().get(), 0x109303Du);
    EXPECT_EQ(log_.Count(LogSink::kError, "Destroy"), 1u);
    EXPECT_TRUE(server_.IsPPCServerRunning());
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(server_.Destroy(), kOk);
}

TEST_F(PpcServerTest, CreateServerInsideAHandlerDuringDestroyIsRefused)
{
    std::promise<void> entered;
    std::atomic<uint32_t> result{0};
    Handle(2);
    Inbox::OnMessage([&](const PPCMessage&) {
        entered.set_value();
        EXPECT_TRUE(WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
        result = server_.CreateServer(kServerId);
    });
    Create();
    const Fd worker = Connect();
    EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
    entered.get_future().wait();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(result, 0x109303Du);
    EXPECT_EQ(log_.Count(LogSink::kError, "CreateServer() called inside a handler"), 1u);
    EXPECT_FALSE(server_.IsPPCServerRunning());
}

// A transport underneath that is not the library's driver: the handle means nothing to it, and its accept returns from
// time to time.
TEST_F(PpcServerTest, ServerOfAnotherTransportIsStoppedWithItsHandleAsItIs)
{
    auto* const foreign = reinterpret_cast<PpcServerHead*>(0x7770);
    CountingHook<DriverServerCreate> creates;
    creates.OnCall([&](uint64_t, int, PpcServerHead** server) -> std::optional<int> {
        *server = foreign;
        return PPC_OK;
    });
    CountingHook<DriverServerDestroy> destroys;
    destroys.OnCall([&](uint64_t, PpcServerHead* server) -> std::optional<int> {
        EXPECT_EQ(server, foreign);
        return PPC_OK;
    });
    accepts_.OnCall([&](uint64_t, PpcServerHead* server, PpcSession**) -> std::optional<int> {
        EXPECT_EQ(server, foreign);
        WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 20ms);
        return PPC_ERR_SOCKET_ACCEPT;
    });
    Create();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(destroys.Count(), 1u);
    EXPECT_EQ(log_.Count("drvRet = 22"), 1u);
}

// ---- A second life ----

TEST_F(PpcServerTest, ServerCanBeCreatedAgainWithEmptyTables)
{
    Handle(2);
    Create();
    {
        const Fd worker = ConnectAs(1, 7);
        EXPECT_EQ(server_.Destroy(), kOk);
    }
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093036u);
    Create();
    EXPECT_TRUE(server_.IsPPCServerRunning());
    const Fd worker = Connect();
    Say(worker, Report(1, 8, 2));
    EXPECT_EQ(log_.Count(") processFunc not exist"), log_.Count("PPCSerMsgProc msg type: "));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_EQ(server_.SendData(Order(1, 8)), kOk);
    EXPECT_EQ(ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 1, 0, 8, 0, {}}));
}

TEST_F(PpcServerTest, SecondServerOnTheSameIdTakesOverTheSocket)
{
    ChildProcess second([this] {
        Fd witness;  // of the first one, which closes it when this process has taken over
        const auto dial = [&witness] {
            witness = Dial();
            return witness.valid();
        };
        if (!WaitUntil(dial, 20s)) {
            return 1;
        }
        if (server_.CreateServer(kServerId) != kOk || !WriteAll(witness, PpcFrame(Report(1, 1)))) {
            return 2;
        }
        return log_.WaitFor("##### [threadName:", 20s) && server_.Destroy() == kOk ? 0 : 3;
    });
    Create();
    ASSERT_TRUE(log_.WaitFor("##### [threadName:", 20s));
    // Whoever connects now comes to the second server; the first one keeps what it has.
    const Fd worker = Dial();
    ASSERT_TRUE(worker.valid());
    EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 2))));
    EXPECT_TRUE(second.WaitExit(20s).ExitedWith(0));
    EXPECT_EQ(server_.SendData(Order(1, 2)), 0x1093036u);
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_FALSE(server_.IsPPCServerRunning());
}

// ---- Process exit and fork ----

// Copies the information lines of the library to a descriptor, until the process has ended.
class LineTap {
public:
    static void CopyTo(int fd)
    {
        fd_ = fd;
        // Made before the server's instance, so that they go after its destructor has written its lines.
        static const ImportHook sink("VlogInfoInner", reinterpret_cast<void*>(&Copy));
        static const ImportHook level("CheckLogLevel", reinterpret_cast<void*>(&EveryLevel));
    }

private:
    static void Copy(int, const char* fmt, ...)
    {
        va_list args;
        va_start(args, fmt);
        vdprintf(fd_, fmt, args);
        va_end(args);
    }
    static int EveryLevel(int, int) { return 1; }

    inline static int fd_ = -1;
};

// Runs a daemon in a process of its own until it exits; gives its exit status and its information lines.
class DaemonProcess {
public:
    explicit DaemonProcess(const std::function<int(PpcServer& server)>& body)
        : pipe_(SocketPair()), child_([this, &body] {
              LineTap::CopyTo(pipe_.second.get());
              pipe_.first.Reset();
              if (ppcInit() != 0 || PpcServer::GetInstance().CreateServer(kServerId) != kOk) {
                  return 100;
              }
              return body(PpcServer::GetInstance());
          })
    {
        pipe_.second.Reset();
    }

    ExitStatus Wait()
    {
        while (WaitReadable(pipe_.first, 20s)) {
            char buffer[4096];
            const ssize_t count = read(pipe_.first.get(), buffer, sizeof(buffer));
            if (count <= 0) {
                break;
            }
            output_.append(buffer, static_cast<size_t>(count));
        }
        return child_.WaitExit(20s);
    }
    const std::string& Output() const { return output_; }
    pid_t Pid() const { return child_.pid(); }

private:
    std::pair<Fd, Fd> pipe_;
    ChildProcess child_;
    std::string output_;
};

// The destructor's line and the teardown behind it.
void ExpectDestructorRan(const DaemonProcess& daemon)
{
    EXPECT_THAT(
        daemon.Output(),
        testing::ContainsRegex("PpcServer::~PpcServer\\(\\) destructor function called,"
                               "\\[qel/device/src/gak/ppc_server.cpp:[0-9]+:~PpcServer\\][0-9]+ Msg: running ok"));
    EXPECT_THAT(daemon.Output(), testing::HasSubstr("[GAKPPCSER] Destory ppc sever [serverId=19280] [pid=" +
                                                    std::to_string(daemon.Pid()) + "]"));
}

Fd DialDaemon()
{
    return RawConnect(static_cast<int>(kServerId));
}

TEST(PpcServerExitTest, ExitWithTheServerRunningDestroysIt)
{
    DaemonProcess daemon([](PpcServer&) -> int {
        const Fd worker = DialDaemon();
        exit(7);
    });
    EXPECT_TRUE(daemon.Wait().ExitedWith(7));
    ExpectDestructorRan(daemon);
}

TEST(PpcServerExitTest, ExitAfterDestroyLogsTheDestructorOnly)
{
    DaemonProcess daemon([](PpcServer& server) -> int {
        server.Destroy();
        exit(8);
    });
    EXPECT_TRUE(daemon.Wait().ExitedWith(8));
    const size_t called = daemon.Output().find("destructor function called");
    ASSERT_NE(called, std::string::npos);
    EXPECT_EQ(daemon.Output().find("Destory", called), std::string::npos);
}

// By its name, as nobody needs to: afterwards there is no server object in the process any more.
TEST(PpcServerExitTest, DestructorDestroysTheServer)
{
    DaemonProcess daemon([](PpcServer& server) -> int {
        const Fd worker = DialDaemon();
        server.~PpcServer();
        return ExpectEof(worker, 10s) && !DialDaemon().valid() ? 11 : 12;
    });
    EXPECT_TRUE(daemon.Wait().ExitedWith(11));
    ExpectDestructorRan(daemon);
}

TEST(PpcServerExitTest, ExitInsideAHandlerEndsTheProcess)
{
    DaemonProcess daemon([](PpcServer& server) -> int {
        server.RegPPCSerMsgProcFunc(2, [](const PPCMessage&) { exit(9); });
        const Fd worker = DialDaemon();
        WriteAll(worker, PpcFrame(Report(1, 7, 2)));
        for (;;) {
            pause();
        }
    });
    EXPECT_TRUE(daemon.Wait().ExitedWith(9));
    EXPECT_THAT(daemon.Output(), testing::HasSubstr("PpcServer::~PpcServer() destructor function called"));
}

TEST(PpcServerExitTest, ExitWithThreadsInsideTheServerIsClean)
{
    DaemonProcess daemon([](PpcServer& server) -> int {
        // Outlive this function: threads use them until the process has ended.
        static std::atomic<bool> told{false};
        static std::atomic<int> writes{0};
        static CountingHook<calls::Writev> hook;
        hook.OnCall([](uint64_t, int, const iovec*, int) -> std::optional<ssize_t> {
            ++writes;
            return std::nullopt;
        });
        server.RegPPCSerMsgProcFunc(0, [](const PPCMessage&) { told = true; });
        static const Fd* const worker = new Fd(DialDaemon());  // never closed
        WriteAll(*worker, PpcFrame(Report(1, 7)));
        WaitUntil([] { return told.load(); }, 10s);
        std::thread([&server] {
            PPCMessage msg = Order(1, 7);
            msg.mutable_lib_names()->add_lib_name(std::string(4U << 20, 'x'));
            for (;;) {
                server.SendData(msg);
            }
        }).detach();
        std::thread([&server] {
            for (;;) {
                server.JoinAllPPCRcvThreads();
                server.GetPpcSession(1, 7);
            }
        }).detach();
        WaitUntil([] { return writes > 0; }, 10s);
        exit(10);
    });
    EXPECT_TRUE(daemon.Wait().ExitedWith(10));
    EXPECT_THAT(daemon.Output(), testing::HasSubstr("PpcServer::~PpcServer() destructor function called"));
}

TEST_F(PpcServerTest, ForkedChildThatExitsLeavesTheSessionsAlone)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    ChildProcess child([this]() -> int {
        log_.Clear();
        static const LogCapture* log = &log_;
        LastExitHandler::decide = [] { return log->Lines().empty() ? 3 : 4; };  // a tear-down would have said so
        exit(1);
    });
    EXPECT_TRUE(child.WaitExit(20s).ExitedWith(3));
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
    const Fd another = ConnectAs(1, 8);
    EXPECT_EQ(server_.SendData(Order(1, 8)), kOk);
}

TEST_F(PpcServerTest, DestroyInAForkedChildDoesNothing)
{
    Create();
    const Fd worker = ConnectAs(1, 7);
    log_.Clear();
    ChildProcess child([this] {
        EXPECT_EQ(server_.Destroy(), kOk);
        EXPECT_THAT(log_.Lines(), IsEmpty());
        EXPECT_EQ(closes_.Count(), 0u);
        return 0;
    });
    EXPECT_TRUE(child.WaitExit(20s).ExitedWith(0));
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    const Fd another = ConnectAs(1, 8);
}

// ---- Tracepoints ----

class PpcServerTracepointTest : public PpcServerTest {
protected:
    void SetUp() override { GAKPPC_SKIP_WITHOUT_TRACEPOINTS(); }
};

TEST_F(PpcServerTracepointTest, ServerIsTracedWhenItListensAndWhenItsSessionsHaveEnded)
{
    std::mutex mutex;
    std::vector<std::string> seen;
    const Tracer tracer({"server_created", "server_destroyed", "session_ended"}, [&](const TracepointHit& hit) {
        const std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(hit.name);
        if (hit.name != "session_ended") {
            EXPECT_THAT(hit.arguments, ElementsAre(kServerId));
            EXPECT_EQ(Dial().valid(), hit.name == "server_created");
        }
    });
    Create();
    EXPECT_EQ(server_.CreateServer(kServerId), kOk);
    ASSERT_TRUE(WaitForExits(1));  // of the connection above
    const Fd worker = Connect();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(seen, ElementsAre("server_created", "session_ended", "session_ended", "server_destroyed"));
}

TEST_F(PpcServerTracepointTest, ServerThatDoesNotComeAboutIsNotTraced)
{
    const TracepointLog traced({"server_created", "server_destroyed"});
    {
        CountingHook<calls::StdThreadCreate> threads;
        threads.FailFrom(1, EAGAIN, 0);
        EXPECT_NE(server_.CreateServer(kServerId), kOk);
    }
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(traced.Lines(), IsEmpty());
}

}  // namespace
