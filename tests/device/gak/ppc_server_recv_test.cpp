#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ppc_server.h"
#include "server_fixture.h"

namespace {

using namespace gaktest;
using gaktest::Bytes;
using gaktest::Fd;
using gaktest::ImportHook;
using gaktest::LogSink;
using gaktest::RawMessage;
using qel::PPCMessage;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kFirstReceiver[] = "ppc_srv_recv_0";
const std::string kTypes =
    "(0:START RSP,1:SHUTDOWN RSP,2:HEARTBEAT,3:NOTIFY_VEXOINFO,4:ABNORMAL,5:SHUTDOWN,6:SOCKET_CLOSE)";

std::string StoreLine(uint32_t device, uint32_t pid)
{
    return Plain("SetPpcSession", "[PpcServer] SetPpcSession, deviceId:" + std::to_string(device) +
                                      ", subProcPid:" + std::to_string(pid));
}

std::string DispatchLine(uint32_t type)
{
    return Plain("PPCSerMsgProc", "[GAKPPCSER] PPCSerMsgProc msg type: " + std::to_string(type));
}

std::string NoHandlerLine(uint32_t type)
{
    return Plain("PPCSerMsgProc",
                 "[GAKPPCSER] PPCSerMsgProc msg type:" + std::to_string(type) + kTypes + " processFunc not exist");
}

std::string SavedLine(const std::string& thread, uint32_t device, int processType)
{
    return WithStatus(0x1011000, "RecvData",
                      "[GAKPPCSER] ##### [threadName:" + thread +
                          "] RecvData [ret=16846848] Save [device index in os:" + std::to_string(device) +
                          "] [notifyProcType:" + std::to_string(processType) + "]####");
}

std::string Place(uint32_t device, uint32_t processType)
{
    return "SOCKET_CLOSED notify device index in os[" + std::to_string(device) + "] procType[" +
           std::to_string(processType) + "] ";
}

// The three events of a closed socket; the status is printed in decimal, 17379391 being 0x109303F.
std::string ClosedEvent(uint32_t device, uint32_t processType, uint32_t status)
{
    return Event("RecvData", "[GAKPPCSER] 0 " + Place(device, processType) + "ret=[" + std::to_string(status) +
                                 "]?[17379391]GAK to clean");
}

std::string NotifyEvent(int number, uint32_t device, uint32_t processType)
{
    return Event("RecvData", "[GAKPPCSER] " + std::to_string(number) + " " + Place(device, processType) +
                                 "ret[17379391] GAK to clean");
}

std::vector<std::string> CloseLines(int listedBefore)
{
    return {Plain("RemoveFromPpcSessionList",
                  "[GAKPPCSER] CloseSomeSession enter [sessionSize:" + std::to_string(listedBefore) + "]"),
            Plain("RemoveFromPpcSessionList",
                  "[GAKPPCSER] CloseSomeSession exit [sessionSize:" + std::to_string(listedBefore - 1) + "]")};
}

std::string ExitEvent(const std::string& thread, uint32_t status, const std::string& threadId)
{
    return Event("RecvData", "[GAKPPCSER] [threadName:" + thread + "] RecvData [ret=" + std::to_string(status) +
                                 "] [tid=" + threadId + "]thread exit");
}

std::vector<std::string> Joined(std::vector<std::string> first, const std::vector<std::string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class PpcServerRecvTest : public ServerTest {
protected:
    std::vector<std::string> ReceiverLines(const std::string& thread = kFirstReceiver)
    {
        return ServerLines(log_, thread);
    }
    // The thread id that a receive thread gave when it ended.
    std::string ExitedThreadId(const std::string& thread)
    {
        for (const std::string& line : ReceiverLines(thread)) {
            const size_t begin = line.find("[tid=");
            const size_t end = line.find("]thread exit");
            if (begin != std::string::npos && end != std::string::npos) {
                return line.substr(begin + 5, end - begin - 5);
            }
        }
        ADD_FAILURE() << thread << " has not ended";
        return "";
    }
    // Lines of the reaper, without the function and the status text that they all have.
    std::vector<std::string> Reap()
    {
        log_.Clear();
        server_.JoinAllPPCRcvThreads();
        const std::string head = "info JoinAllPPCRcvThreads: [GAKPPCSER] JoinAllPPCRcvThreads() ";
        const std::string tail = " | running ok";
        std::vector<std::string> lines = ServerLines(log_);
        for (std::string& line : lines) {
            EXPECT_EQ(line.substr(0, head.size()), head);
            EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
            line = line.substr(head.size(), line.size() - head.size() - tail.size());
        }
        return lines;
    }
    // The thread ids that a reaper's lines name, in order.
    static std::vector<std::string> IdsAfter(const std::string& key, const std::vector<std::string>& lines)
    {
        std::vector<std::string> ids;
        for (const std::string& line : lines) {
            const size_t begin = line.find(key);
            if (begin != std::string::npos) {
                ids.push_back(line.substr(begin + key.size(), line.find(']', begin) - begin - key.size()));
            }
        }
        return ids;
    }
    void Finish(Fd& worker)
    {
        const size_t before = log_.Count("]thread exit");
        worker.Reset();
        EXPECT_TRUE(WaitForExits(before + 1));
    }
};

// ---- Receiving ----

TEST_F(PpcServerRecvTest, MessageIsStoredDispatchedAndLoggedInThisOrder)
{
    Handle(2);
    Create();
    const Fd worker = Connect();
    Say(worker, {2, 3, kServerId, 1, 42, 0, {}});
    EXPECT_THAT(ReceiverLines(), ElementsAre(StoreLine(3, 42), DispatchLine(2), SavedLine(kFirstReceiver, 3, 1)));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(RawMessage{2, 3, kServerId, 1, 42, 0, {}}));
}

TEST_F(PpcServerRecvTest, HandlerGetsTheWholeMessage)
{
    const RawMessage raw{3, 1, kServerId, 2, 42, 77, std::vector<std::string>{"liba.so", "libb.so"}};
    Handle(3);
    Create();
    const Fd worker = Connect();
    Say(worker, raw);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(raw));
}

TEST_F(PpcServerRecvTest, HandlerRunsOnTheReceiveThreadOfTheSession)
{
    Handle(2);
    Create();
    std::vector<std::string> threads;
    Inbox::OnMessage([&threads](const PPCMessage&) { threads.emplace_back(OwnThreadName()); });
    const Fd first = Connect();
    const Fd second = Connect();
    Say(second, Report(0, 1, 2));
    Say(first, Report(0, 2, 2));
    EXPECT_THAT(threads, ElementsAre("ppc_srv_recv_1", "ppc_srv_recv_0"));
    Inbox::OnMessage(nullptr);
}

TEST_F(PpcServerRecvTest, WorkerIsReachableUnderEveryPairItHasReported)
{
    Create();
    const Fd worker = Connect();
    Say(worker, Report(0, 10));
    Say(worker, Report(3, 11));
    EXPECT_NE(server_.GetPpcSession(0, 10), nullptr);
    EXPECT_EQ(server_.GetPpcSession(0, 10), server_.GetPpcSession(3, 11));
}

TEST_F(PpcServerRecvTest, LatestSessionOfAPairIsUsed)
{
    Create();
    const Fd first = ConnectAs(1, 7);
    const Fd second = ConnectAs(1, 7);
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(gaktest::ReadPpcFrame(second, 10s), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
    EXPECT_FALSE(gaktest::WaitReadable(first, 0ms));
}

TEST_F(PpcServerRecvTest, FramesInOneWriteAreReceivedInOrder)
{
    Handle(2);
    Create();
    const Fd worker = Connect();
    Bytes frames;
    for (uint32_t pid = 1; pid <= 3; ++pid) {
        const Bytes frame = gaktest::PpcFrame(Report(0, pid, 2));
        frames.insert(frames.end(), frame.begin(), frame.end());
    }
    EXPECT_TRUE(WriteAll(worker, frames));
    ASSERT_TRUE(Inbox::WaitFor(3));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(0, 1, 2), Report(0, 2, 2), Report(0, 3, 2)));
}

// ---- What is accepted, what is not ----

struct AcceptedCase {
    const char* name;
    RawMessage raw;
};

std::ostream& operator<<(std::ostream& out, const AcceptedCase& param)
{
    return out << param.name;
}

class PpcServerAcceptedTest : public PpcServerRecvTest, public testing::WithParamInterface<AcceptedCase> {};

TEST_P(PpcServerAcceptedTest, MessageWithinTheBoundsIsDispatched)
{
    const RawMessage& raw = GetParam().raw;
    Handle(raw.type);
    Create();
    const Fd worker = Connect();
    Say(worker, raw);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(raw));
    EXPECT_THAT(ReceiverLines(), ElementsAre(StoreLine(raw.src_id, raw.sub_proc_pid), DispatchLine(raw.type),
                                             SavedLine(kFirstReceiver, raw.src_id, static_cast<int>(raw.proc_type))));
}

INSTANTIATE_TEST_SUITE_P(Bounds, PpcServerAcceptedTest,
                         testing::Values(AcceptedCase{"Device3", {0, 3, 0, 0, 7, 0, {}}},
                                         AcceptedCase{"ProcessTypeCustomCompute", {0, 0, 0, 2, 7, 0, {}}},
                                         AcceptedCase{"TypeAbnormal", {4, 0, 0, 0, 7, 0, {}}},
                                         AcceptedCase{"AllDefaults", {0, 0, 0, 0, 0, 0, {}}}),
                         [](const testing::TestParamInfo<AcceptedCase>& param) { return param.param.name; });

// The bounds are compared as signed numbers.
TEST_F(PpcServerRecvTest, NegativeTypeAndProcessTypePass)
{
    const RawMessage raw{0xFFFFFFFF, 1, 0, 0xFFFFFFFE, 7, 0, {}};
    Handle(0xFFFFFFFF);
    Create();
    const Fd worker = Connect();
    Say(worker, raw);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(raw));
}

struct RejectedCase {
    const char* name;
    RawMessage raw;
    const char* message;
};

std::ostream& operator<<(std::ostream& out, const RejectedCase& param)
{
    return out << param.name;
}

class PpcServerRejectedTest : public PpcServerRecvTest, public testing::WithParamInterface<RejectedCase> {};

TEST_P(PpcServerRejectedTest, MessageOutsideTheBoundsEndsItsThreadAndLeavesTheSessionListed)
{
    Handle(GetParam().raw.type);
    Create();
    const Fd worker = Connect();
    EXPECT_TRUE(ThreadsBecome(kFirstReceiver, 1));
    EXPECT_TRUE(WriteAll(worker, gaktest::PpcFrame(GetParam().raw)));
    EXPECT_TRUE(ThreadsBecome(kFirstReceiver, 0));
    // Nothing else is said, stored, dispatched or closed.
    EXPECT_THAT(ReceiverLines(), ElementsAre(WithStatus(0x109303D, "RecvData", GetParam().message)));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_EQ(server_.GetPpcSession(GetParam().raw.src_id, GetParam().raw.sub_proc_pid), nullptr);
    EXPECT_FALSE(gaktest::WaitReadable(worker, 0ms));
    // Only Destroy joins the thread and closes the session.
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=1]", "exit [threadSize=1] [freeThreadSize=0]"));
    EXPECT_EQ(closes_.Count(), 0u);
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_TRUE(gaktest::ExpectEof(worker, 10s));
}

constexpr char kBadDevice[] = "[GAKPPCSER] RecvData() srcDevId >= MAX_DEVNUM_PER_OS invalid param";
constexpr char kBadProcessType[] = "[GAKPPCSER] RecvData() proctype > COMPUTE invalid param";
constexpr char kBadType[] = "[GAKPPCSER] RecvData() msgType > ABNORMAL invalid param";

INSTANTIATE_TEST_SUITE_P(
    Bounds, PpcServerRejectedTest,
    testing::Values(RejectedCase{"Device4", {0, 4, 0, 0, 7, 0, {}}, kBadDevice},
                    RejectedCase{"LargestDevice", {0, 0xFFFFFFFF, 0, 0, 7, 0, {}}, kBadDevice},
                    RejectedCase{"ProcessType3", {0, 0, 0, 3, 7, 0, {}}, kBadProcessType},
                    RejectedCase{"TypeShutdown", {5, 0, 0, 0, 7, 0, {}}, kBadType},
                    RejectedCase{"TypeSocketClose", {6, 0, 0, 0, 7, 0, {}}, kBadType},
                    RejectedCase{"DeviceIsCheckedFirst", {5, 4, 0, 3, 7, 0, {}}, kBadDevice},
                    RejectedCase{"ProcessTypeIsCheckedBeforeType", {5, 3, 0, 3, 7, 0, {}}, kBadProcessType}),
    [](const testing::TestParamInfo<RejectedCase>& param) { return param.param.name; });

TEST_F(PpcServerRecvTest, RejectionOfOneWorkerLeavesTheOthersAlone)
{
    Handle(2);
    Create();
    const Fd good = Connect();
    const Fd bad = Connect();
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 1));
    EXPECT_TRUE(WriteAll(bad, gaktest::PpcFrame(Report(4, 1, 2))));
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 0));
    Say(good, Report(1, 2, 2));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(1, 2, 2)));
}

// ---- Closed sockets ----

TEST_F(PpcServerRecvTest, WorkerThatClosesBeforeItsFirstMessageIsReportedAsDevice4AndProcessType3)
{
    Handle(6);
    Create();
    Fd worker = Connect();
    Finish(worker);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(RawMessage{6, 4, 19280, 3, 0, 0, {}}));
    const std::string id = ExitedThreadId(kFirstReceiver);
    const std::vector<std::string> expected =
        Joined(Joined({ClosedEvent(4, 3, 0x109303F), NotifyEvent(1, 4, 3), DispatchLine(6), NotifyEvent(2, 4, 3)},
                      CloseLines(1)),
               {ExitEvent(kFirstReceiver, 0x109303F, id)});
    EXPECT_THAT(ReceiverLines(), ElementsAreArray(expected));
}

TEST_F(PpcServerRecvTest, SocketCloseKeepsTheOtherFieldsOfTheLastMessage)
{
    Handle(6);
    Create();
    Fd worker = Connect();
    Say(worker, Report(0, 41));
    Say(worker, {3, 2, 5, 1, 42, 77, std::vector<std::string>{"liba.so"}});
    Finish(worker);
    EXPECT_THAT(Inbox::Messages(),
                ElementsAre(RawMessage{6, 2, 19280, 1, 42, 77, std::vector<std::string>{"liba.so"}}));
    EXPECT_THAT(ReceiverLines(), Contains(ClosedEvent(2, 1, 0x109303F)));
}

struct BrokenCase {
    const char* name;
    Bytes bytes;
    uint32_t status;
};

std::ostream& operator<<(std::ostream& out, const BrokenCase& param)
{
    return out << param.name;
}

class PpcServerBrokenTest : public PpcServerRecvTest, public testing::WithParamInterface<BrokenCase> {};

TEST_P(PpcServerBrokenTest, OtherReceiveFailureIsNotReportedToTheDaemonButEndsTheSession)
{
    Handle(6);
    Create();
    Fd worker = ConnectAs(1, 7);
    log_.Clear();
    EXPECT_TRUE(WriteAll(worker, GetParam().bytes));
    EXPECT_EQ(shutdown(worker.get(), SHUT_WR), 0);
    ASSERT_TRUE(WaitForExits(1));
    const std::string id = ExitedThreadId(kFirstReceiver);
    EXPECT_THAT(ReceiverLines(), ElementsAreArray(Joined(Joined({ClosedEvent(1, 0, GetParam().status)}, CloseLines(1)),
                                                         {ExitEvent(kFirstReceiver, GetParam().status, id)})));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_TRUE(gaktest::ExpectEof(worker, 10s));
    EXPECT_THAT(IdsAfter("[free tid=", Reap()), ElementsAre(id));
}

INSTANTIATE_TEST_SUITE_P(Failures, PpcServerBrokenTest,
                         testing::Values(BrokenCase{"CutPayload", {0, 0, 0, 9, 5, 0, 0, 0}, 0x1093037},
                                         BrokenCase{"CutLengthField", {0, 0}, 0x1093037},
                                         BrokenCase{"InnerLengthMismatch", {0, 0, 0, 4, 1, 0, 0, 0}, 0x109303A},
                                         BrokenCase{"EmptyFrame", {0, 0, 0, 0}, 0x109303B},
                                         BrokenCase{
                                             "InnerLengthOverflow", {0, 0, 0, 4, 255, 255, 255, 255}, 0x1013008}),
                         [](const testing::TestParamInfo<BrokenCase>& param) { return param.param.name; });

TEST_F(PpcServerRecvTest, ThreadThatCannotCloseItsSessionStillEndsAndIsReaped)
{
    Create();
    Fd worker = Connect();
    closes_.FailFrom(1, PPC_ERR_INVALID_VALUE, 0);
    Finish(worker);
    EXPECT_THAT(ReceiverLines(),
                Contains(WithStatus(0x1093041, "CloseSomeSession", "[GAKPPCSER] CloseSomeSession ppc session failed")));
    EXPECT_THAT(Reap(), Contains("exit [threadSize=0] [freeThreadSize=0]"));
}

TEST_F(PpcServerRecvTest, KilledWorkerProcessesAreReportedEach)
{
    std::vector<std::unique_ptr<WorkerProcess>> workers;
    for (uint32_t device = 0; device < 4; ++device) {
        workers.push_back(std::make_unique<WorkerProcess>([device](Fd& socket) {
            WriteAll(socket, gaktest::PpcFrame({0, device, kServerId, device % 3, 100 + device, 0, {}}));
            for (;;) {
                pause();
            }
            return 0;
        }));
    }
    Handle(6);
    Create();
    for (const auto& worker : workers) {
        worker->Start();
    }
    ASSERT_TRUE(log_.WaitFor("##### [threadName:", 20s, 4));
    for (uint32_t device = 0; device < 4; ++device) {
        workers[device]->Process().Kill(SIGKILL);
        ASSERT_TRUE(Inbox::WaitFor(device + 1));
        EXPECT_EQ(Inbox::Messages().back(), (RawMessage{6, device, 19280, device % 3, 100 + device, 0, {}}));
        EXPECT_TRUE(workers[device]->Process().WaitExit(10s).KilledBy(SIGKILL));
    }
}

// ---- Threads ----

TEST_F(PpcServerRecvTest, ReceiveWithTheFlagLoweredEndsAtOnce)
{
    void* const session = reinterpret_cast<void*>(0x10);
    std::string name;
    std::thread([&] {
        server_.RecvData(session, 5);
        name = OwnThreadName();
    }).join();
    EXPECT_EQ(name, "ppc_srv_recv_5");
    EXPECT_THAT(log_.Lines(), IsEmpty());
    EXPECT_EQ(closes_.Count(), 0u);
}

// A session of another endpoint, received on by a thread with a long number.
TEST_F(PpcServerRecvTest, SystemKeepsFifteenCharactersOfTheNameAndTheLogAll)
{
    Create();
    const Fd raisesTheFlag = Connect();
    PpcServerHead* endpoint = nullptr;
    ASSERT_EQ(drvPpcServerCreate(kServerId + 1, &endpoint), PPC_OK);
    Fd worker = gaktest::RawConnect(kServerId + 1);
    PpcSession* accepted = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint, &accepted), PPC_OK);
    void* const session = accepted;
    std::thread receiver([&] { server_.RecvData(session, 123); });
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_12", 1));
    Say(worker, Report(1, 7));
    EXPECT_THAT(ReceiverLines("ppc_srv_recv_12"), Contains(SavedLine("ppc_srv_recv_123", 1, 0)));
    Finish(worker);
    receiver.join();
    EXPECT_EQ(log_.Count("[threadName:ppc_srv_recv_123] RecvData [ret=17379391]"), 1u);
    EXPECT_EQ(drvPpcServerDestroy(endpoint), PPC_OK);
}

TEST_F(PpcServerRecvTest, ThreadIdIsPrintedAsAStreamDoes)
{
    Handle(2);
    Create();
    std::ostringstream id;
    Inbox::OnMessage([&id](const PPCMessage&) { id << std::this_thread::get_id(); });
    Fd worker = Connect();
    Say(worker, Report(1, 7, 2));
    Finish(worker);
    EXPECT_EQ(ExitedThreadId(kFirstReceiver), id.str());
}

[[noreturn]] void FindNoMemory()
{
    throw std::bad_alloc();
}

// No memory for numbers that are written to streams. How that is called depends on what the compiler inlined.
ImportHook NoMemoryForNumbers()
{
    void* const replacement = reinterpret_cast<void*>(&FindNoMemory);
    try {
        return ImportHook("_ZNSo9_M_insertImEERSoT_", replacement);
    } catch (const std::runtime_error&) {
        return ImportHook("_ZNSolsEm", replacement);
    }
}

TEST_F(PpcServerRecvTest, ThreadIdThatThereIsNoMemoryForIsLeftOut)
{
    Create();
    const ImportHook noMemory = NoMemoryForNumbers();
    ConnectAs(0, 7).Reset();
    ASSERT_TRUE(WaitForExits(1));
    EXPECT_EQ(log_.Count(LogSink::kEvent, "[tid=]thread exit"), 1u);
    server_.JoinAllPPCRcvThreads();
    EXPECT_EQ(log_.Count("JoinAllPPCRcvThreads() [free tid=],"), 1u);
    EXPECT_EQ(log_.Count("JoinAllPPCRcvThreads() exit [threadSize=0] [freeThreadSize=0]"), 1u);
}

TEST_F(PpcServerRecvTest, NumberOfAReapedThreadIsGivenAgain)
{
    Create();
    Fd first = Connect();
    const Fd second = Connect();
    Finish(first);
    server_.JoinAllPPCRcvThreads();
    const Fd third = Connect();
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 2));
}

// ---- Handlers ----

TEST_F(PpcServerRecvTest, RegistrationIsLogged)
{
    Handle(3);
    EXPECT_THAT(ServerLines(log_), ElementsAre(Plain("RegPPCSerMsgProcFunc",
                                                     "[GAKPPCSER] RegPPCSerMsgProcFunc type:3" + kTypes + " success")));
}

std::atomic<int> otherHandlerCalls{0};

void OtherHandler(const PPCMessage&)
{
    ++otherHandlerCalls;
}

TEST_F(PpcServerRecvTest, FirstHandlerOfATypeStays)
{
    Handle(2);
    log_.Clear();
    server_.RegPPCSerMsgProcFunc(2, &OtherHandler);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(Plain("RegPPCSerMsgProcFunc", "[GAKPPCSER] RegPPCSerMsgProcFunc type:2" + kTypes +
                                                              " has exist,no need to register")));
    server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
    EXPECT_EQ(otherHandlerCalls, 0);
}

TEST_F(PpcServerRecvTest, NullHandlerDropsTheMessagesAndBlocksOthers)
{
    server_.RegPPCSerMsgProcFunc(4, nullptr);
    Handle(4);
    EXPECT_EQ(log_.Count("type:4" + kTypes + " success"), 1u);
    EXPECT_EQ(log_.Count("type:4" + kTypes + " has exist,no need to register"), 1u);
    log_.Clear();
    server_.PPCSerMsgProc(Message(Report(1, 7, 4)));
    EXPECT_THAT(ServerLines(log_), ElementsAre(DispatchLine(4)));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
}

TEST_F(PpcServerRecvTest, TypeOfAHandlerIsNotRangeTested)
{
    Handle(0xFFFFFFF0);
    EXPECT_EQ(log_.Count("RegPPCSerMsgProcFunc type:4294967280(0:START RSP"), 1u);
    server_.PPCSerMsgProc(Message(Report(1, 7, 0xFFFFFFF0)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(PpcServerRecvTest, HandlerThatCannotBeStoredForLackOfMemoryCanBeRegisteredLater)
{
    {
        gaktest::CountingHook<gaktest::calls::OperatorNew> memory;
        memory.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
        Handle(2);
    }
    EXPECT_EQ(log_.Count(LogSink::kError, "memory exhausted error"), 1u);
    EXPECT_EQ(log_.Count(" success"), 0u);
    Handle(2);
    server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(PpcServerRecvTest, MessageWithoutAHandlerIsLoggedAndDropped)
{
    Handle(1);
    Create();
    const Fd worker = Connect();
    Say(worker, Report(1, 7, 4));
    EXPECT_THAT(ReceiverLines(),
                ElementsAre(StoreLine(1, 7), DispatchLine(4), NoHandlerLine(4), SavedLine(kFirstReceiver, 1, 0)));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    Say(worker, Report(1, 7, 1));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(PpcServerRecvTest, HandlerRegisteredAfterCreationIsUsed)
{
    Create();
    const Fd worker = Connect();
    Handle(2);
    Say(worker, Report(1, 7, 2));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(PpcServerRecvTest, OneHandlerRunsAtATimeInTheWholeServer)
{
    Handle(2);
    Handle(4);
    Create();
    std::promise<void> leave;
    std::shared_future<void> left = leave.get_future().share();
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    Inbox::OnMessage([&](const PPCMessage&) {
        most = std::max(most.load(), ++inside);
        left.wait();
        --inside;
    });
    const Fd first = Connect();
    const Fd second = Connect();
    EXPECT_TRUE(WriteAll(first, gaktest::PpcFrame(Report(1, 1, 2))));
    ASSERT_TRUE(Inbox::WaitFor(1));
    // The second message comes as far as the handlers' mutex, which is the next one after the line of its dispatch.
    std::atomic<bool> secondHasCome{false};
    gaktest::CountingHook<MutexLock> locks;
    locks.OnCall([&](uint64_t, pthread_mutex_t*) -> std::optional<int> {
        secondHasCome = secondHasCome || (OwnThreadName() == "ppc_srv_recv_1" && log_.Count("msg type: 4") == 1);
        return std::nullopt;
    });
    EXPECT_TRUE(WriteAll(second, gaktest::PpcFrame(Report(1, 2, 4))));
    ASSERT_TRUE(gaktest::WaitUntil([&] { return secondHasCome.load(); }, 10s));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
    leave.set_value();
    ASSERT_TRUE(Inbox::WaitFor(2));
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(most, 1);
}

TEST_F(PpcServerRecvTest, HandlerMayAnswer)
{
    Handle(1);
    Create();
    Inbox::OnMessage(
        [this](const PPCMessage& msg) { EXPECT_EQ(server_.SendData(Order(msg.src_id(), msg.sub_proc_pid())), kOk); });
    const Fd worker = Connect();
    Say(worker, Report(2, 7, 1));
    EXPECT_EQ(gaktest::ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 2, 0, 7, 0, {}}));
    Inbox::OnMessage(nullptr);
}

TEST_F(PpcServerRecvTest, ThrowingHandlerIsLoggedAndItsThreadGoesOn)
{
    Handle(2);
    Create();
    Inbox::OnMessage([](const PPCMessage& msg) {
        if (msg.sub_proc_pid() == 1) {
            throw std::runtime_error("no such worker");
        }
        throw 5;
    });
    const Fd worker = Connect();
    Say(worker, Report(1, 1, 2));
    EXPECT_EQ(log_.Count("no such worker"), 1u);
    Say(worker, Report(1, 2, 2));
    EXPECT_EQ(log_.Count(LogSink::kWarn, "PPCSerMsgProc"), 2u);
    Inbox::OnMessage(nullptr);
    Say(worker, Report(1, 3, 2));
    EXPECT_EQ(Inbox::Messages().size(), 3u);
}

// ---- Destroy and the receive threads ----

TEST_F(PpcServerRecvTest, ThreadInsideAHandlerDuringDestroyStopsWithoutClosing)
{
    Handle(2);
    Handle(6);
    Create();
    std::promise<void> entered;
    Inbox::OnMessage([&](const PPCMessage&) {
        entered.set_value();
        EXPECT_TRUE(gaktest::WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
    });
    const Fd worker = Connect();
    EXPECT_TRUE(WriteAll(worker, gaktest::PpcFrame(Report(1, 7, 2))));
    entered.get_future().wait();
    // Both flags fall at once as far as others can tell; only then may the handler go on.
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ReceiverLines(), ElementsAre(StoreLine(1, 7), DispatchLine(2), SavedLine(kFirstReceiver, 1, 0)));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(1, 7, 2)));
    EXPECT_EQ(closes_.Count(), 1u);
}

TEST_F(PpcServerRecvTest, IdleThreadTakesTheSocketClosedPathDuringDestroyAndClosesNothing)
{
    Handle(6);
    Create();
    gaktest::CountingHook<gaktest::calls::Recv> receives;
    const Fd worker = ConnectAs(2, 7);
    // Three calls for the message, the fourth waits for the next one.
    ASSERT_TRUE(gaktest::WaitUntil([&] { return receives.Count() == 4; }, 10s));
    log_.Clear();
    std::vector<int> results;
    std::mutex mutex;
    closes_.OnCall([&](uint64_t, PpcSession* session) -> std::optional<int> {
        const int result = gaktest::CountingHook<DriverSessionClose>::Real(session);
        std::lock_guard<std::mutex> lock(mutex);
        results.push_back(result);
        return result;
    });
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(Inbox::Messages(), ElementsAre(RawMessage{6, 2, 19280, 0, 7, 0, {}}));
    EXPECT_THAT(
        ReceiverLines(),
        ElementsAre(ClosedEvent(2, 0, 0x109303F), NotifyEvent(1, 2, 0), DispatchLine(6), NotifyEvent(2, 2, 0),
                    WithStatus(0x1093041, "CloseSomeSession", "[GAKPPCSER] CloseSomeSession ppc session failed"),
                    ExitEvent(kFirstReceiver, 0x109303F, ExitedThreadId(kFirstReceiver))));
    EXPECT_THAT(results, testing::UnorderedElementsAre(PPC_OK, PPC_ERR_INVALID_VALUE));
}

// ---- Reaping ----

TEST_F(PpcServerRecvTest, ReapingWithNothingFinishedLogsEnterAndExitOnly)
{
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=0]", "exit [threadSize=0] [freeThreadSize=0]"));
    Create();
    const Fd worker = Connect();
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=1]", "exit [threadSize=1] [freeThreadSize=0]"));
}

TEST_F(PpcServerRecvTest, ReapingStopsWhenTheFinishedListIsEmpty)
{
    Create();
    Fd first = Connect();
    const Fd second = Connect();
    Finish(first);
    const std::string id = ExitedThreadId("ppc_srv_recv_0");
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=2]", "[ppc tid=" + id + "] [threadSize=2] [freeThreadSize=1]",
                                    "[free tid=" + id + "]", "Find free tid and joinable",
                                    "exit [threadSize=1] [freeThreadSize=0]"));
}

TEST_F(PpcServerRecvTest, ReapingPassesThreadsThatStillReceive)
{
    Create();
    const Fd first = Connect();
    Fd second = Connect();
    Finish(second);
    const std::string finished = ExitedThreadId("ppc_srv_recv_1");
    const std::vector<std::string> lines = Reap();
    const std::string living = IdsAfter("[ppc tid=", lines).front();
    EXPECT_NE(living, finished);
    EXPECT_THAT(lines, ElementsAre("enter [threadSize=2]", "[ppc tid=" + living + "] [threadSize=2] [freeThreadSize=1]",
                                   "[free tid=" + finished + "]", "Not find free tid",
                                   "[ppc tid=" + finished + "] [threadSize=2] [freeThreadSize=1]",
                                   "[free tid=" + finished + "]", "Find free tid and joinable",
                                   "exit [threadSize=1] [freeThreadSize=0]"));
}

// The later of two threads finishes first: the search for the earlier one passes its entry.
TEST_F(PpcServerRecvTest, ReapingSearchesTheFinishedListFromItsFront)
{
    Create();
    Fd first = Connect();
    Fd second = Connect();
    Finish(second);
    Finish(first);
    const std::string one = ExitedThreadId("ppc_srv_recv_0");
    const std::string two = ExitedThreadId("ppc_srv_recv_1");
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=2]", "[ppc tid=" + one + "] [threadSize=2] [freeThreadSize=2]",
                                    "[free tid=" + two + "]", "[free tid=" + one + "]", "Find free tid and joinable",
                                    "[ppc tid=" + two + "] [threadSize=1] [freeThreadSize=1]", "[free tid=" + two + "]",
                                    "Find free tid and joinable", "exit [threadSize=0] [freeThreadSize=0]"));
}

TEST_F(PpcServerRecvTest, ReapedThreadsAreGone)
{
    Create();
    const size_t threads = gaktest::ThreadCount();
    const size_t descriptors = gaktest::OpenDescriptors();
    std::vector<Fd> workers;
    for (int i = 0; i < 6; ++i) {
        workers.push_back(Connect());
    }
    workers.clear();
    ASSERT_TRUE(WaitForExits(6));
    EXPECT_THAT(Reap(), Contains("exit [threadSize=0] [freeThreadSize=0]"));
    EXPECT_TRUE(gaktest::WaitUntil([&] { return gaktest::ThreadCount() == threads; }, 10s));
    EXPECT_EQ(gaktest::OpenDescriptors(), descriptors);
}

// The thread of a new session takes over what one that has ended leaves behind, whether the daemon reaps or not. The id
// of a thread tells where its stack is.
TEST_F(PpcServerRecvTest, UnreapedThreadsLeaveTheirStacksToYoungerOnes)
{
    constexpr size_t kSessions = 8;
    Create();
    std::set<std::string> ids;
    for (size_t i = 0; i < kSessions; ++i) {
        Fd worker = Connect();
        Finish(worker);
        ids.insert(ExitedThreadId("ppc_srv_recv_" + std::to_string(i)));
    }
    EXPECT_EQ(ids.size(), 1u);
    const std::vector<std::string> lines = Reap();
    EXPECT_EQ(lines.front(), "enter [threadSize=8]");
    EXPECT_EQ(lines.back(), "exit [threadSize=0] [freeThreadSize=0]");
}

// A thread that was not started by the server leaves an entry that belongs to nobody.
TEST_F(PpcServerRecvTest, EntryOfAForeignThreadMatchesNoReceiveThread)
{
    Create();
    const Fd worker = Connect();
    PpcServerHead* endpoint = nullptr;
    ASSERT_EQ(drvPpcServerCreate(kServerId + 1, &endpoint), PPC_OK);
    gaktest::RawConnect(kServerId + 1).Reset();
    PpcSession* accepted = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint, &accepted), PPC_OK);
    void* const session = accepted;
    std::thread([&] { server_.RecvData(session, 9); }).join();
    EXPECT_EQ(drvPpcServerDestroy(endpoint), PPC_OK);
    auto reaped = std::async(std::launch::async, [this] { return Reap(); });
    const bool inTime = reaped.wait_for(10s) == std::future_status::ready;
    EXPECT_TRUE(inTime);
    if (inTime) {
        EXPECT_EQ(reaped.get().back(), "exit [threadSize=1] [freeThreadSize=1]");
    }
}

}  // namespace
