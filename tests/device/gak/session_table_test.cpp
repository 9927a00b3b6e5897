#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <utility>

#include "server_fixture.h"
#include "server_lines.h"

namespace {

using namespace gaktest;
using testing::Contains;
using testing::ElementsAre;

using SessionTableTest = ServerTest;

TEST_F(SessionTableTest, StoringAndLookingUpASessionIsLogged)
{
    int foreign = 0;
    void* const session = &foreign;
    server_.SetPpcSession(3, 4294967295, session);
    EXPECT_EQ(server_.GetPpcSession(3, 4294967295), session);
    EXPECT_THAT(ServerLines(log_),
                ElementsAre(Plain("SetPpcSession", "[PpcServer] SetPpcSession, deviceId:3, subProcPid:4294967295"),
                            LookupLine(3, 4294967295)));
}

TEST_F(SessionTableTest, AnyDeviceAndPointerCanBeStored)
{
    void* const unmapped = reinterpret_cast<void*>(0x10);
    server_.SetPpcSession(0xFFFFFFFF, 0, unmapped);
    EXPECT_EQ(server_.GetPpcSession(0xFFFFFFFF, 0), unmapped);
}

TEST_F(SessionTableTest, EachPairOfDeviceAndSubProcessHasItsOwnSession)
{
    char foreign[3];
    const std::pair<uint32_t, uint32_t> pairs[] = {{0, 1}, {1, 0}, {1, 1}};
    for (size_t i = 0; i < 3; ++i) {
        server_.SetPpcSession(pairs[i].first, pairs[i].second, &foreign[i]);
    }
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(server_.GetPpcSession(pairs[i].first, pairs[i].second), &foreign[i]);
    }
    EXPECT_EQ(server_.GetPpcSession(0, 0), nullptr);
}

TEST_F(SessionTableTest, LaterSessionOfAPairReplacesTheEarlier)
{
    char foreign[2];
    server_.SetPpcSession(1, 7, &foreign[0]);
    server_.SetPpcSession(1, 7, &foreign[1]);
    EXPECT_EQ(server_.GetPpcSession(1, 7), &foreign[1]);
}

TEST_F(SessionTableTest, FailedLookupEntersThePairWithANullHandle)
{
    CountingHook<calls::OperatorNew> allocations;
    EXPECT_EQ(server_.GetPpcSession(2, 5), nullptr);
    EXPECT_EQ(server_.GetPpcSession(2, 6), nullptr);
    EXPECT_EQ(allocations.Count(), 2u);
    allocations.Reset();
    EXPECT_EQ(server_.GetPpcSession(2, 5), nullptr);
    EXPECT_EQ(server_.GetPpcSession(2, 6), nullptr);
    EXPECT_EQ(allocations.Count(), 0u);
}

TEST_F(SessionTableTest, SendDataToAPairNeverSeenEntersIt)
{
    EXPECT_EQ(server_.SendData(Order(1, 99)), 0x1093036u);
    CountingHook<calls::OperatorNew> allocations;
    EXPECT_EQ(server_.GetPpcSession(1, 99), nullptr);
    EXPECT_EQ(allocations.Count(), 0u);
}

TEST_F(SessionTableTest, SessionThatCannotBeStoredForLackOfMemoryIsLoggedAndNotRaised)
{
    int foreign = 0;
    {
        const NoMemory noMemory;
        server_.SetPpcSession(1, 7, &foreign);
    }
    EXPECT_EQ(log_.Count(LogSink::kError, "memory exhausted error"), 1u);
    EXPECT_EQ(server_.GetPpcSession(1, 7), nullptr);
}

TEST_F(SessionTableTest, LookupWithoutMemoryFindsNothingAndRaisesNothing)
{
    {
        const NoMemory noMemory;
        EXPECT_EQ(server_.GetPpcSession(1, 7), nullptr);
        EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093036u);
    }
    EXPECT_EQ(log_.Count(LogSink::kError, "memory exhausted error"), 2u);
}

TEST_F(SessionTableTest, WorkerIsReachableUnderEveryPairItHasReported)
{
    Create();
    const Fd worker = Connect();
    Say(worker, Report(0, 10));
    Say(worker, Report(3, 11));
    EXPECT_NE(server_.GetPpcSession(0, 10), nullptr);
    EXPECT_EQ(server_.GetPpcSession(0, 10), server_.GetPpcSession(3, 11));
}

TEST_F(SessionTableTest, LatestSessionOfAPairIsUsed)
{
    Create();
    const Fd first = ConnectAs(1, 7);
    const Fd second = ConnectAs(1, 7);
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_EQ(ReadPpcFrame(second, 10s), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
    EXPECT_FALSE(WaitReadable(first, 0ms));
}

// The thread of the former session remembers that it had been entered.
TEST_F(SessionTableTest, WorkerIsReachedOverTheSessionThatSpokeLast)
{
    Create();
    const Fd first = ConnectAs(1, 7);
    Say(first, Report(1, 7));
    void* const firstSession = server_.GetPpcSession(1, 7);
    const Fd second = ConnectAs(1, 7);
    EXPECT_NE(server_.GetPpcSession(1, 7), firstSession);
    Say(first, Report(1, 7));
    EXPECT_EQ(server_.GetPpcSession(1, 7), firstSession);
}

// ---- Stale entries ----

TEST_F(SessionTableTest, ClosedSessionStaysInTheTableAndSendingToItFails)
{
    Create();
    Fd worker = ConnectAs(1, 7);
    void* const handle = server_.GetPpcSession(1, 7);
    ASSERT_NE(handle, nullptr);
    worker.Reset();
    ASSERT_TRUE(WaitForExits(1));
    EXPECT_EQ(server_.GetPpcSession(1, 7), handle);
    log_.Clear();
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093037u);
    EXPECT_THAT(CodecLines(log_),
                Contains(WithStatus(0x1093037, "SendMsg", "[GAKPPCIF] SendMsg() Send message buffer fail")));
}

// A session record shows its descriptor behind the magic word, and -1 from the moment when its thread closes it.
int DescriptorOf(void* session)
{
    return __atomic_load_n(static_cast<int*>(session) + 1, __ATOMIC_ACQUIRE);
}

TEST_F(SessionTableTest, StaleEntryNeverReachesANewWorkerWithTheSameDescriptor)
{
    // The system reserves a session's number when accept is called, and it gives the lowest free one. So the old number
    // is kept from the new worker's own end and let go right before that call, while nothing else can take it.
    int descriptor = -1;
    std::promise<void> workerWaits;
    accepts_.OnCall([&, goOn = workerWaits.get_future().share()](uint64_t number, PpcServerHead*,
                                                                 PpcSession**) -> std::optional<int> {
        if (number == 2) {
            goOn.wait();
            close(descriptor);
        }
        return std::nullopt;
    });
    Create();
    Fd former = ConnectAs(1, 7);
    void* const stale = server_.GetPpcSession(1, 7);
    descriptor = DescriptorOf(stale);
    former.Reset();
    ASSERT_TRUE(WaitForExits(1));
    ASSERT_EQ(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, descriptor), descriptor);
    const Fd worker = Dial();
    workerWaits.set_value();
    Say(worker, Report(1, 8));
    ASSERT_EQ(DescriptorOf(server_.GetPpcSession(1, 8)), descriptor);
    EXPECT_NE(server_.GetPpcSession(1, 8), stale);
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093037u);
    EXPECT_EQ(server_.SendData(Order(1, 8)), kOk);
    EXPECT_EQ(ReadPpcFrame(worker, 10s), (RawMessage{5, 0, 1, 0, 8, 0, {}}));
    EXPECT_EQ(server_.Destroy(), kOk);
}

// More sessions end meanwhile than the driver remembers.
TEST_F(SessionTableTest, StaleEntryStaysSafeAfterThousandsOfOtherSessions)
{
    Create();
    Fd worker = ConnectAs(1, 7);
    void* const stale = server_.GetPpcSession(1, 7);
    worker.Reset();
    ASSERT_TRUE(WaitForExits(1));
    log_.SetMinimumLevel(3);
    const Fd listener = RawListen(kServerId + 1);
    for (int i = 0; i < 5000; ++i) {
        PpcSession* session = nullptr;
        ASSERT_EQ(drvPpcSessionConnect(kServerId + 1, &session), PPC_OK);
        ASSERT_NE(session, stale);
        ASSERT_TRUE(RawAccept(listener, 10s).valid());
        ASSERT_EQ(drvPpcSessionDestroy(session), PPC_OK);
    }
    EXPECT_EQ(server_.SendData(Order(1, 7)), 0x1093037u);
}

}  // namespace
