#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "held_mutexes.h"
#include "server_fixture.h"
#include "server_lines.h"
#include "tracer.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using testing::ElementsAre;
using testing::IsEmpty;

class HandlerTableTest : public ServerTest {};

std::atomic<int> otherHandlerCalls{0};

void OtherHandler(const PPCMessage&)
{
    ++otherHandlerCalls;
}

TEST_F(HandlerTableTest, RegistrationIsLogged)
{
    Handle(3);
    EXPECT_THAT(ServerLines(log_), ElementsAre(Plain("RegPPCSerMsgProcFunc",
                                                     "[GAKPPCSER] RegPPCSerMsgProcFunc type:3" + kTypes + " success")));
}

TEST_F(HandlerTableTest, FirstHandlerOfATypeStays)
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

TEST_F(HandlerTableTest, NullHandlerDropsTheMessagesAndBlocksOthers)
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

TEST_F(HandlerTableTest, TypeOfAHandlerIsNotRangeTested)
{
    Handle(0xFFFFFFF0);
    EXPECT_EQ(log_.Count("RegPPCSerMsgProcFunc type:4294967280(0:START RSP"), 1u);
    server_.PPCSerMsgProc(Message(Report(1, 7, 0xFFFFFFF0)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(HandlerTableTest, HandlerThatCannotBeStoredForLackOfMemoryCanBeRegisteredLater)
{
    {
        CountingHook<calls::OperatorNew> memory;
        memory.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
        Handle(2);
    }
    EXPECT_EQ(log_.Count(LogSink::kError, "memory exhausted error"), 1u);
    EXPECT_EQ(log_.Count(" success"), 0u);
    Handle(2);
    server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(HandlerTableTest, MessageWithoutAHandlerIsLoggedAndDropped)
{
    Handle(1);
    Create();
    const Fd worker = Connect();
    Say(worker, Report(1, 7, 4));
    EXPECT_THAT(ServerLines(log_, kFirstReceiver),
                ElementsAre(StoreLine(1, 7), DispatchLine(4), NoHandlerLine(4), SavedLine(kFirstReceiver, 1, 0)));
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
    Say(worker, Report(1, 7, 1));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(HandlerTableTest, HandlerRegisteredAfterCreationIsUsed)
{
    Create();
    const Fd worker = Connect();
    Handle(2);
    Say(worker, Report(1, 7, 2));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
}

TEST_F(HandlerTableTest, OneHandlerRunsAtATimeInTheWholeServer)
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
    EXPECT_TRUE(WriteAll(first, PpcFrame(Report(1, 1, 2))));
    ASSERT_TRUE(Inbox::WaitFor(1));
    // The second message comes as far as the handlers' mutex, which is the next one after the line of its dispatch.
    std::atomic<bool> secondHasCome{false};
    CountingHook<MutexLock> locks;
    locks.OnCall([&](uint64_t, pthread_mutex_t*) -> std::optional<int> {
        secondHasCome = secondHasCome || (OwnThreadName() == "ppc_srv_recv_1" && log_.Count("msg type: 4") == 1);
        return std::nullopt;
    });
    EXPECT_TRUE(WriteAll(second, PpcFrame(Report(1, 2, 4))));
    ASSERT_TRUE(WaitUntil([&] { return secondHasCome.load(); }, 10s));
    EXPECT_EQ(Inbox::Messages().size(), 1u);
    leave.set_value();
    ASSERT_TRUE(Inbox::WaitFor(2));
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(most, 1);
}

TEST_F(HandlerTableTest, HandlerMayAnswer)
{
    Handle(1);
    Create();
    Inbox::OnMessage(
        [this](const PPCMessage& msg) { EXPECT_EQ(server_.SendData(Order(msg.src_id(), msg.sub_proc_pid())), kOk); });
    const Fd worker = Connect();
    Say(worker, Report(2, 7, 1));
    EXPECT_EQ(ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 2, 0, 7, 0, {}}));
    Inbox::OnMessage(nullptr);
}

TEST_F(HandlerTableTest, ThrowingHandlerIsLoggedAndItsThreadGoesOn)
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

// ---- Handlers that end their thread ----

TEST_F(HandlerTableTest, HandlerThatEndsItsThreadEndsItsSession)
{
    Handle(2);
    Create();
    Inbox::OnMessage([](const PPCMessage&) { pthread_exit(nullptr); });
    const Fd worker = Connect();
    EXPECT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
    ASSERT_TRUE(WaitForExits(1));
    EXPECT_TRUE(ExpectEof(worker, 10s));
    EXPECT_EQ(log_.Count("CloseSomeSession exit [sessionSize:0]"), 1u);
    EXPECT_EQ(Reap().back(), "exit [threadSize=0] [freeThreadSize=0]");
}

TEST_F(HandlerTableTest, HandlerThatEndsItsThreadLetsOthersRun)
{
    Handle(2);
    Create();
    Inbox::OnMessage([](const PPCMessage&) { pthread_exit(nullptr); });
    const Fd first = Connect();
    EXPECT_TRUE(WriteAll(first, PpcFrame(Report(1, 7, 2))));
    ASSERT_TRUE(WaitForExits(1));
    Inbox::OnMessage(nullptr);
    const Fd second = Connect();
    Say(second, Report(1, 8, 2));
    EXPECT_EQ(Inbox::Messages().size(), 2u);
}

TEST_F(HandlerTableTest, HandlerOfAClosedSessionMayEndItsThread)
{
    Handle(6);
    Create();
    Inbox::OnMessage([](const PPCMessage&) { pthread_exit(nullptr); });
    Fd worker = ConnectAs(1, 7);
    Finish(worker);
    EXPECT_EQ(log_.Count("CloseSomeSession exit [sessionSize:0]"), 1u);
    EXPECT_EQ(Reap().back(), "exit [threadSize=0] [freeThreadSize=0]");
}

TEST_F(HandlerTableTest, HandlerOnAThreadOfTheDaemonMayEndIt)
{
    Handle(2);
    Inbox::OnMessage([](const PPCMessage&) { pthread_exit(nullptr); });
    bool returned = false;
    std::thread([&] {
        server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
        returned = true;
    }).join();
    EXPECT_FALSE(returned);
    Inbox::OnMessage(nullptr);
    server_.PPCSerMsgProc(Message(Report(1, 7, 2)));
    EXPECT_EQ(Inbox::Messages().size(), 2u);
}

// ---- What handlers may call ----

struct HandlerCase {
    const char* name;
    void (*call)(qel::PpcServer& server, const PPCMessage& msg);
};

std::ostream& operator<<(std::ostream& out, const HandlerCase& param)
{
    return out << param.name;
}

class HandlerCallTest : public HandlerTableTest, public testing::WithParamInterface<HandlerCase> {};

// In handlers of messages, of closed sessions, and of sessions that Destroy closes.
TEST_P(HandlerCallTest, IsAllowedInEveryHandler)
{
    Handle(2);
    Handle(6);
    Inbox::OnMessage([this](const PPCMessage& msg) { GetParam().call(server_, msg); });
    const Baseline before;
    Create();
    std::vector<Fd> workers;
    for (uint32_t pid = 1; pid <= 4; ++pid) {
        workers.push_back(Connect());
        EXPECT_TRUE(WriteAll(workers.back(), PpcFrame(Report(1, pid, 2))));
    }
    ASSERT_TRUE(Inbox::WaitFor(4));
    workers.resize(2);
    ASSERT_TRUE(WaitForExits(2));
    ExpectToReturn([this] { EXPECT_EQ(server_.Destroy(), kOk); });
    workers.clear();
    EXPECT_TRUE(before.Returned());
}

INSTANTIATE_TEST_SUITE_P(
    Calls, HandlerCallTest,
    testing::Values(HandlerCase{"Reap", [](auto& server, auto&) { server.JoinAllPPCRcvThreads(); }},
                    HandlerCase{"Send", [](auto& server,
                                           auto& msg) { server.SendData(Order(msg.src_id(), msg.sub_proc_pid())); }},
                    HandlerCase{"CloseTheirSession",
                                [](auto& server, auto& msg) {
                                    server.CloseSomeSession(server.GetPpcSession(msg.src_id(), msg.sub_proc_pid()));
                                }},
                    HandlerCase{"StoreASession",
                                [](auto& server, auto&) { server.SetPpcSession(3, 99, server.GetPpcSession(1, 1)); }},
                    HandlerCase{"CreateAndDestroyInVain",
                                [](auto& server, auto&) {
                                    EXPECT_EQ(server.Destroy(), 0x109303Du);
                                    server.CreateServer(kServerId);
                                }}),
    [](const testing::TestParamInfo<HandlerCase>& param) { return param.param.name; });

// ---- Tracepoints ----

class HandlerTracepointTest : public HandlerTableTest {
protected:
    void SetUp() override { GAKPPC_SKIP_WITHOUT_TRACEPOINTS(); }

    static const std::vector<std::string>& Names()
    {
        static const std::vector<std::string> names = {"handler_waiting", "handler_entered", "handler_left"};
        return names;
    }
};

TEST_F(HandlerTracepointTest, MessageIsTracedBeforeInsideAndAfterItsTurn)
{
    Handle(4);
    const HeldMutexes held;
    std::vector<std::string> seen;
    Inbox::OnMessage([&](const PPCMessage&) { seen.emplace_back("handler"); });
    const Tracer tracer(Names(), [&](const TracepointHit& hit) {
        const bool isItsTurn = HeldMutexes::OfThisThread() == 1;
        seen.push_back(hit.name + (isItsTurn ? ", its turn" : ""));
        EXPECT_THAT(hit.arguments, ElementsAre(4, 1, 4242));
        EXPECT_EQ(hit.thread, gettid());
    });
    server_.PPCSerMsgProc(Message(Report(1, 4242, 4)));
    EXPECT_THAT(seen, ElementsAre("handler_waiting", "handler_entered, its turn", "handler", "handler_left, its turn"));
}

TEST_F(HandlerTracepointTest, HandlerThatRaisesIsLeft)
{
    Handle(2);
    Inbox::OnMessage([](const PPCMessage&) { throw std::runtime_error("no such worker"); });
    const TracepointLog traced(Names());
    server_.PPCSerMsgProc(Message(Report(3, 7, 2)));
    EXPECT_THAT(traced.Lines(), ElementsAre("handler_waiting 2 3 7", "handler_entered 2 3 7", "handler_left 2 3 7"));
}

TEST_F(HandlerTracepointTest, MessageWithoutAHandlerOnlyWaits)
{
    server_.RegPPCSerMsgProcFunc(78, nullptr);
    const TracepointLog traced(Names());
    server_.PPCSerMsgProc(Message(Report(1, 7, 77)));
    server_.PPCSerMsgProc(Message(Report(1, 8, 78)));
    EXPECT_THAT(traced.Lines(), ElementsAre("handler_waiting 77 1 7", "handler_waiting 78 1 8"));
}

}  // namespace
