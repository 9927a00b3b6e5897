#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ppc_server.h"
#include "server_fixture.h"
#include "server_lines.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

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

TEST_F(PpcServerRecvTest, FramesInOneWriteAreReceivedInOrder)
{
    Handle(2);
    Create();
    const Fd worker = Connect();
    Bytes frames;
    for (uint32_t pid = 1; pid <= 3; ++pid) {
        const Bytes frame = PpcFrame(Report(0, pid, 2));
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

TEST_P(PpcServerRejectedTest, MessageOutsideTheBoundsEndsItsThreadAndKeepsTheSession)
{
    Handle(GetParam().raw.type);
    Create();
    const Fd worker = Connect();
    EXPECT_TRUE(ThreadsBecome(kFirstReceiver, 1));
    EXPECT_TRUE(WriteAll(worker, PpcFrame(GetParam().raw)));
    EXPECT_TRUE(ThreadsBecome(kFirstReceiver, 0));
    // Nothing else is said, stored, dispatched or closed.
    EXPECT_THAT(ReceiverLines(), ElementsAre(WithStatus(0x109303D, "RecvData", GetParam().message)));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    EXPECT_EQ(server_.GetPpcSession(GetParam().raw.src_id, GetParam().raw.sub_proc_pid), nullptr);
    EXPECT_FALSE(WaitReadable(worker, 0ms));
    // Only Destroy joins the thread and closes the session.
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=1]", "exit [threadSize=1] [freeThreadSize=0]"));
    EXPECT_EQ(closes_.Count(), 0u);
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(closes_.Count(), 1u);
    EXPECT_TRUE(ExpectEof(worker, 10s));
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
    EXPECT_TRUE(WriteAll(bad, PpcFrame(Report(4, 1, 2))));
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 0));
    Say(good, Report(1, 2, 2));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(1, 2, 2)));
}

// ---- Closed sockets ----

TEST_F(PpcServerRecvTest, WorkerThatNeverSpokeIsReportedAsDevice4AndProcessType3)
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
    EXPECT_TRUE(ExpectEof(worker, 10s));
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
            WriteAll(socket, PpcFrame({0, device, kServerId, device % 3, 100 + device, 0, {}}));
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
    Fd worker = RawConnect(kServerId + 1);
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

// ---- Destroy and the receive threads ----

TEST_F(PpcServerRecvTest, ThreadInsideAHandlerDuringDestroyStopsWithoutClosing)
{
    Handle(2);
    Handle(6);
    Create();
    std::promise<void> entered;
    Inbox::OnMessage([&](const PPCMessage&) {
        entered.set_value();
        EXPECT_TRUE(WaitUntil([this] { return !server_.IsPPCServerRunning(); }, 10s));
    });
    const Fd worker = Connect();
    EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
    entered.get_future().wait();
    // Both flags fall at once as far as others can tell; only then may the handler go on.
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(ReceiverLines(), ElementsAre(StoreLine(1, 7), DispatchLine(2), SavedLine(kFirstReceiver, 1, 0)));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(1, 7, 2)));
    EXPECT_EQ(closes_.Count(), 1u);
}

TEST_F(PpcServerRecvTest, SessionThatItsOwnHandlerClosesIsReported)
{
    Handle(0);
    Handle(6);
    Create();
    Inbox::OnMessage([this](const qel::PPCMessage& msg) {
        if (msg.type() == 0) {
            void* const session = server_.GetPpcSession(msg.src_id(), msg.sub_proc_pid());
            server_.CloseSomeSession(session);
        }
    });
    const Fd worker = Connect();
    EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(2, 7))));
    EXPECT_TRUE(WaitForExits(1));
    EXPECT_THAT(Inbox::Messages(), ElementsAre(Report(2, 7), RawMessage{6, 2, 19280, 0, 7, 0, {}}));
}

TEST_F(PpcServerRecvTest, IdleThreadTakesTheSocketClosedPathDuringDestroy)
{
    Handle(6);
    Create();
    CountingHook<calls::Recv> receives;
    const Fd worker = ConnectAs(2, 7);
    // Three calls for the message, the fourth waits for the next one.
    ASSERT_TRUE(WaitUntil([&] { return receives.Count() == 4; }, 10s));
    log_.Clear();
    std::vector<int> results;
    std::mutex mutex;
    closes_.OnCall([&](uint64_t, PpcSession* session) -> std::optional<int> {
        const int result = CountingHook<DriverSessionClose>::Real(session);
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

}  // namespace
