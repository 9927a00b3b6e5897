#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server_fixture.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using testing::Contains;
using testing::ElementsAre;

using ReceiveThreadsTest = ServerTest;

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

TEST_F(ReceiveThreadsTest, ThreadIdThatThereIsNoMemoryForIsLeftOut)
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

TEST_F(ReceiveThreadsTest, NumberOfAReapedThreadIsGivenAgain)
{
    Create();
    Fd first = Connect();
    const Fd second = Connect();
    Finish(first);
    server_.JoinAllPPCRcvThreads();
    const Fd third = Connect();
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_1", 2));
}

TEST_F(ReceiveThreadsTest, ReapingWithNothingFinishedLogsEnterAndExitOnly)
{
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=0]", "exit [threadSize=0] [freeThreadSize=0]"));
    Create();
    const Fd worker = Connect();
    EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=1]", "exit [threadSize=1] [freeThreadSize=0]"));
}

TEST_F(ReceiveThreadsTest, ReapingStopsWhenTheFinishedListIsEmpty)
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

TEST_F(ReceiveThreadsTest, ReapingPassesThreadsThatStillReceive)
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
TEST_F(ReceiveThreadsTest, ReapingSearchesTheFinishedListFromItsFront)
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

TEST_F(ReceiveThreadsTest, ReapedThreadsAreGone)
{
    Create();
    const size_t threads = ThreadCount();
    const size_t descriptors = OpenDescriptors();
    std::vector<Fd> workers;
    for (int i = 0; i < 6; ++i) {
        workers.push_back(Connect());
    }
    workers.clear();
    ASSERT_TRUE(WaitForExits(6));
    EXPECT_THAT(Reap(), Contains("exit [threadSize=0] [freeThreadSize=0]"));
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threads; }, 10s));
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

// The thread of a new session takes over what one that has ended leaves behind, whether the daemon reaps or not. The id
// of a thread tells where its stack is.
TEST_F(ReceiveThreadsTest, UnreapedThreadsLeaveTheirStacksToYoungerOnes)
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

// So that a daemon that nobody reaps keeps one stack, not as many as it had workers.
TEST_F(ReceiveThreadsTest, EndingThreadJoinsTheOneThatEndedBefore)
{
    Create();
    std::vector<Fd> workers;
    for (int i = 0; i < 3; ++i) {
        workers.push_back(Connect());
    }
    CountingHook<ThreadJoin> joins;
    for (Fd& worker : workers) {
        Finish(worker);
    }
    EXPECT_EQ(joins.Count(), 2u);
    server_.JoinAllPPCRcvThreads();
    EXPECT_EQ(joins.Count(), 3u);
}

// A thread that was not started by the server leaves an entry that belongs to nobody.
TEST_F(ReceiveThreadsTest, EntryOfAForeignThreadMatchesNoReceiveThread)
{
    Create();
    const Fd worker = Connect();
    PpcServerHead* endpoint = nullptr;
    ASSERT_EQ(drvPpcServerCreate(kServerId + 1, &endpoint), PPC_OK);
    RawConnect(kServerId + 1).Reset();
    PpcSession* accepted = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint, &accepted), PPC_OK);
    void* const session = accepted;
    std::thread([&] { server_.RecvData(session, 9); }).join();
    EXPECT_EQ(drvPpcServerDestroy(endpoint), PPC_OK);
    ExpectToReturn([this] { EXPECT_EQ(Reap().back(), "exit [threadSize=1] [freeThreadSize=1]"); });
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_EQ(Reap().back(), "exit [threadSize=0] [freeThreadSize=0]");
}

// The system gives the ids of the first life's threads to those of the second.
TEST_F(ReceiveThreadsTest, EntriesOfFinishedThreadsEndWithTheLifeOfTheServer)
{
    const auto connectThree = [this] {
        std::vector<Fd> workers;
        for (uint32_t pid = 0; pid < 3; ++pid) {
            workers.push_back(ConnectAs(1, pid));
        }
        return workers;
    };
    Create();
    connectThree().clear();
    ASSERT_TRUE(WaitForExits(3));
    EXPECT_EQ(server_.Destroy(), kOk);
    Create();
    std::vector<Fd> workers = connectThree();
    ExpectToReturn(
        [this] { EXPECT_THAT(Reap(), ElementsAre("enter [threadSize=3]", "exit [threadSize=3] [freeThreadSize=0]")); });
}

TEST_F(ReceiveThreadsTest, ReapingCostsNoLineForEachThreadWhenNobodySeesThem)
{
    Create();
    std::vector<Fd> ended;
    std::vector<Fd> living;
    for (int i = 0; i < 12; ++i) {
        living.push_back(Connect());
        ended.push_back(Connect());
    }
    ended.clear();
    ASSERT_TRUE(WaitForExits(12));
    log_.SetMinimumLevel(3);
    const size_t before = log_.CheckLogLevelCalls();
    server_.JoinAllPPCRcvThreads();
    EXPECT_LE(log_.CheckLogLevelCalls() - before, 4u);
    log_.SetMinimumLevel(0);
    EXPECT_EQ(Reap().front(), "enter [threadSize=12]");
}

// Without memory for the ids only their lines are missing.
TEST_F(ReceiveThreadsTest, ReapingNeedsNoMemory)
{
    Create();
    const Fd first = Connect();
    for (uint64_t failing = 1; failing <= 4; ++failing) {
        Fd second = Connect();
        Finish(second);
        CountingHook<calls::OperatorNew> news;
        news.OnCall([failing](uint64_t number, size_t) -> std::optional<void*> {
            if (number == failing) {
                throw std::bad_alloc();
            }
            return std::nullopt;
        });
        const std::vector<std::string> lines = Reap();
        EXPECT_EQ(lines.size(), failing <= 2 ? 2u : 8u);
        EXPECT_EQ(lines.front(), "enter [threadSize=2]");
        EXPECT_EQ(lines.back(), "exit [threadSize=1] [freeThreadSize=0]");
    }
}

// ---- Reaping during Destroy ----

TEST_F(ReceiveThreadsTest, HandlersReapWhileDestroyJoinsTheirThreads)
{
    Handle(6);
    Create();
    std::vector<Fd> workers;
    for (uint32_t pid = 0; pid < 10; ++pid) {
        workers.push_back(ConnectAs(1, pid));
    }
    CountingHook<ThreadJoin> joins;
    Inbox::OnMessage([&](const PPCMessage&) {
        EXPECT_TRUE(WaitUntil([&] { return joins.Count() >= 2; }, 10s));  // the accept thread's was the first
        server_.JoinAllPPCRcvThreads();
    });
    ExpectToReturn([this] { EXPECT_EQ(server_.Destroy(), kOk); });
    EXPECT_FALSE(Inbox::Messages().empty());
}

TEST_F(ReceiveThreadsTest, ReaperSharesALockWithHandlersWhileDestroyJoins)
{
    std::mutex shared;
    Handle(6);
    Inbox::OnMessage([&](const PPCMessage&) { std::lock_guard<std::mutex> lock(shared); });
    Create();
    const Fd first = ConnectAs(1, 1);
    const Fd second = ConnectAs(1, 2);
    CountingHook<ThreadJoin> joins;
    std::promise<void> locked;
    auto reaper = std::async(std::launch::async, [&] {
        std::lock_guard<std::mutex> lock(shared);
        locked.set_value();
        EXPECT_TRUE(WaitUntil([&] { return joins.Count() >= 2; }, 10s));
        server_.JoinAllPPCRcvThreads();
    });
    locked.get_future().wait();
    ExpectToReturn([this] { EXPECT_EQ(server_.Destroy(), kOk); });
    reaper.get();
}

}  // namespace
