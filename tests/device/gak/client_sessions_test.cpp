#include "client_sessions.h"

#include <array>
#include <memory>
#include <new>
#include <set>

#include "client_lines.h"
#include "held_mutexes.h"

namespace gaktest {
namespace {

using qel::PPCMessage;
using testing::ElementsAre;

using ClientSessionsTest = ClientFixture;

// Called by each line that is composed.
struct GetTid : calls::OfGakppc {
    static constexpr const char* kSymbol = "osalGetTid";
    using Signature = int();
};
struct CheckLevel : calls::OfGakppc {
    static constexpr const char* kSymbol = "CheckLogLevel";
    using Signature = int(int, int);
};

TEST_F(ClientSessionsTest, SecondCallReturnsTheSameSessionAndDoesNotConnect)
{
    CountingHook<DrvConnect> connects;
    void* session = client_.GetPpcSession(2, PPCMessage::COMPUTE);
    EXPECT_NE(session, nullptr);
    EXPECT_EQ(client_.GetPpcSession(2, PPCMessage::COMPUTE), session);
    EXPECT_EQ(connects.Count(), 1u);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnected));
}

TEST_F(ClientSessionsTest, AnotherProcessTypeOpensASecondSessionToTheSameServer)
{
    std::vector<int> servers;
    CountingHook<DrvConnect> connects;
    connects.OnCall([&servers](uint64_t, int serverId, PpcSession**) {
        servers.push_back(serverId);
        return std::optional<int>();
    });
    void* compute = client_.GetPpcSession(0, PPCMessage::COMPUTE);
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), compute);
    EXPECT_THAT(servers, ElementsAre(0x4B50, 0x4B50));
    EXPECT_TRUE(Accept().valid());
    EXPECT_TRUE(Accept().valid());
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnected, kConnecting, kConnected));
}

TEST_F(ClientSessionsTest, EachDeviceAndProcessTypeHasASessionOfItsOwn)
{
    std::set<void*> sessions;
    for (uint32_t device = 0; device < 4; ++device) {
        for (const auto type : {PPCMessage::ZOLT, PPCMessage::COMPUTE, PPCMessage::CUSTOM_COMPUTE}) {
            EXPECT_TRUE(Open(device, type).valid());
            sessions.insert(client_.GetPpcSession(device, type));
        }
    }
    EXPECT_EQ(sessions.size(), 12u);
    EXPECT_EQ(sessions.count(nullptr), 0u);
}

TEST_F(ClientSessionsTest, Device4SharesTheSessionOfDevice0)
{
    for (const uint32_t device : {0U, 1U, 3U}) {
        void* session = client_.GetPpcSession(device, PPCMessage::COMPUTE);
        EXPECT_NE(session, nullptr);
        EXPECT_EQ(client_.GetPpcSession(device + 4, PPCMessage::COMPUTE), session);
    }
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::COMPUTE), client_.GetPpcSession(1, PPCMessage::COMPUTE));
}

TEST_F(ClientSessionsTest, SessionKeyIsTheDevicesBitPlusTheProcessType)
{
    // 0x1 + 0xFF is 0x100, the key of (1, ZOLT); 0x1000000 + 0xFF000001 overflows to 0x1, the key of (0, ZOLT).
    EXPECT_EQ(client_.GetPpcSession(0, static_cast<PPCMessage::ProcessType>(0xFF)),
              client_.GetPpcSession(1, PPCMessage::ZOLT));
    EXPECT_EQ(client_.GetPpcSession(3, static_cast<PPCMessage::ProcessType>(0xFF000001 - (1LL << 32))),
              client_.GetPpcSession(0, PPCMessage::ZOLT));
}

TEST_F(ClientSessionsTest, ConnectFailureGivesNoSessionAndTheNextCallTriesAgain)
{
    CountingHook<DrvConnect> connects;
    connects.FailCall(1, PPC_ERR_SOCKET_CONNECT, 0);
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnectFailed));
    log_.Clear();
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnected));
}

TEST_F(ClientSessionsTest, ConnectThatYieldsNoSessionIsAFailure)
{
    CountingHook<DrvConnect> connects;
    connects.FailFrom(1, PPC_OK, 0);
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(connects.Count(), 2u);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnectFailed, kConnecting, kConnectFailed));
    log_.Clear();
    client_.Destroy();
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, kNotRunning));
}

TEST_F(ClientSessionsTest, NoDaemonGivesNoSession)
{
    StopListening();
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnectFailed));
}

TEST_F(ClientSessionsTest, ConcurrentFirstUseConnectsOnce)
{
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    CountingHook<DrvInit> inits;
    CountingHook<DrvConnect> connects;
    connects.OnCall([released](uint64_t, int, PpcSession**) {
        released.wait();
        return std::optional<int>();
    });
    std::array<void*, 4> seen{};
    std::vector<std::thread> threads;
    for (void*& session : seen) {
        threads.emplace_back([&] { session = client_.GetPpcSession(0, PPCMessage::COMPUTE); });
    }
    EXPECT_TRUE(WaitUntil([&] { return inits.Count() == 4 && connects.Count() == 1; }, kWait));
    release.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(connects.Count(), 1u);
    EXPECT_NE(seen[0], nullptr);
    EXPECT_THAT(seen, testing::Each(seen[0]));
}

// While a call writes its line, another one connects.
TEST_F(ClientSessionsTest, CallThatIsOvertakenByAConnectDoesNotConnect)
{
    CountingHook<DrvConnect> connects;
    CountingHook<GetTid> lines;
    void* first = nullptr;
    lines.OnCall([&](uint64_t number) {
        if (number == 1) {
            first = client_.GetPpcSession(0, PPCMessage::COMPUTE);
        }
        return std::optional<int>();
    });
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::COMPUTE), first);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(connects.Count(), 1u);
    lines.Reset();
    EXPECT_THAT(Lines(), ElementsAre(kConnecting, kConnected, kConnecting));
}

TEST_F(ClientSessionsTest, SessionThatCouldNotBeStoredIsNotConnected)
{
    CountingHook<calls::OperatorNew> news;
    CountingHook<DrvConnect> connects;
    news.OnCall([](uint64_t, size_t) -> std::optional<void*> { throw std::bad_alloc(); });
    EXPECT_EQ(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(connects.Count(), 0u);
    EXPECT_TRUE(NobodyConnects());
    news.Reset();
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(connects.Count(), 1u);
}

// ---- Destroy ----

TEST_F(ClientSessionsTest, DestroyEndsTheSessionsInTheOrderOfTheirKeys)
{
    std::vector<void*> ended;
    CountingHook<DrvSessionDestroy> destroys;
    destroys.OnCall([&ended](uint64_t, PpcSession* session) {
        ended.push_back(session);
        return std::optional<int>();
    });
    void* fourth = client_.GetPpcSession(3, PPCMessage::ZOLT);
    void* second = client_.GetPpcSession(0, PPCMessage::CUSTOM_COMPUTE);
    void* third = client_.GetPpcSession(1, PPCMessage::COMPUTE);
    void* first = client_.GetPpcSession(0, PPCMessage::ZOLT);
    client_.Destroy();
    EXPECT_THAT(ended, ElementsAre(first, second, third, fourth));
}

TEST_F(ClientSessionsTest, DestroyGoesOnAfterASessionThatCannotBeDestroyed)
{
    CountingHook<DrvSessionDestroy> destroys;
    destroys.OnCall([](uint64_t number, PpcSession* session) {
        const int result = CountingHook<DrvSessionDestroy>::Real(session);
        return std::optional<int>(number == 1 ? 9 : result);
    });
    const Fd peer = Open(0, PPCMessage::ZOLT);
    const Fd other = Open(1, PPCMessage::ZOLT);
    log_.Clear();
    client_.Destroy();
    EXPECT_THAT(Lines(), ElementsAre(kDestroyEnter, SessionDestroyed(9),
                                     Line(kDriverError, "Destroy", "[GAKPPCCLI]  Destroy() drvPpcSessionDestroy fail"),
                                     SessionDestroyed(0), kDestroyExit));
    EXPECT_TRUE(ExpectEof(other, kWait));
    // Nothing is left: the next session is a new one.
    CountingHook<DrvConnect> connects;
    EXPECT_NE(client_.GetPpcSession(0, PPCMessage::ZOLT), nullptr);
    EXPECT_EQ(connects.Count(), 1u);
}

const std::string kReceiveWithoutRunning =
    Line(kRecvFail, "RecvData", "[GAKPPCCLI] recvdata device 1 clientRecvFlag_ is false receive msg failed");

// Destroy waits for the connect, and ends what it brings.
TEST_F(ClientSessionsTest, DestroyDuringAConnectLeavesTheClientDestroyed)
{
    const Fd first = Open(0, PPCMessage::ZOLT);
    std::promise<void> destroyLocks;
    CountingHook<calls::MutexLock> locks;
    CountingHook<DrvConnect> connects;
    std::unique_ptr<BackgroundCall> destroying;
    connects.OnCall([&](uint64_t, int, PpcSession**) {
        locks.OnCall([&, connecting = std::this_thread::get_id()](uint64_t, pthread_mutex_t*) {
            if (std::this_thread::get_id() != connecting) {
                locks.OnCall(nullptr);
                destroyLocks.set_value();
            }
            return std::optional<int>();
        });
        destroying = std::make_unique<BackgroundCall>([this] {
            client_.Destroy();
            return 0U;
        });
        EXPECT_EQ(destroyLocks.get_future().wait_for(gaktest::Stretched(kWait)), std::future_status::ready);
        return std::optional<int>();
    });
    EXPECT_NE(client_.GetPpcSession(1, PPCMessage::ZOLT), nullptr);
    destroying->Result();
    EXPECT_TRUE(ExpectEof(first, kWait));
    EXPECT_TRUE(ExpectEof(Accept(), kWait));

    connects.Reset();
    StopListening();
    log_.Clear();
    EXPECT_EQ(client_.RecvData(1, 0), kRecvFail.number);
    EXPECT_THAT(Lines(), ElementsAre(kReceiveWithoutRunning));
}

// What a call of RecvData does on its way to a session; Destroy comes in between.
class ClientSessionsOvertakenTest : public ClientSessionsTest {
protected:
    void SetUp() override
    {
        ClientSessionsTest::SetUp();
        Open(0, PPCMessage::ZOLT).Reset();  // the client runs
    }

    void ExpectNoSessionIsOpened()
    {
        CountingHook<DrvConnect> connects;
        BackgroundCall receiving([this] { return client_.RecvData(1, 0); });
        EXPECT_TRUE(WaitUntil([&] { return receiving.Returned() || connects.Count() > 0; }, kWait));
        EXPECT_EQ(connects.Count(), 0u);
        listener_.Reset();  // ends a session that should not be there
        EXPECT_EQ(receiving.Result(), kRecvFail.number);
        EXPECT_EQ(Lines().back(), kReceiveWithoutRunning);
    }
};

TEST_F(ClientSessionsOvertakenTest, ByDestroyBeforeTheClientIsCreatedOpensNoSession)
{
    CountingHook<DrvInit> inits;
    inits.OnCall([this](uint64_t) {
        client_.Destroy();
        return std::optional<int>();
    });
    ExpectNoSessionIsOpened();
}

TEST_F(ClientSessionsOvertakenTest, ByDestroyWhileItLogsTheConnectOpensNoSession)
{
    CountingHook<GetTid> lines;
    lines.OnCall([this](uint64_t number) {
        if (number == 1) {
            client_.Destroy();
        }
        return std::optional<int>();
    });
    ExpectNoSessionIsOpened();
}

// A sink may block or call back, and so may a driver that ends a session.
class ClientSessionsLockTest : public ClientSessionsTest {
protected:
    ClientSessionsLockTest()
    {
        levels_.OnCall([](uint64_t, int, int) { return ExpectNoMutex(); });
        tids_.OnCall([](uint64_t) { return ExpectNoMutex(); });
        destroys_.OnCall([](uint64_t, PpcSession*) { return ExpectNoMutex(); });
        connects_.OnCall([this](uint64_t, int serverId, PpcSession** session) {
            inDriver_ = true;  // the driver's own lines are written where they are
            const int result = connectFails_ ? PPC_ERR_SOCKET_CONNECT : connects_.Real(serverId, session);
            inDriver_ = false;
            return std::optional<int>(result);
        });
    }

    static std::optional<int> ExpectNoMutex()
    {
        EXPECT_TRUE(inDriver_ || HeldMutexes::OfThisThread() == 0);
        return std::nullopt;
    }

    static inline thread_local bool inDriver_ = false;
    bool connectFails_ = false;
    HeldMutexes held_;
    CountingHook<CheckLevel> levels_;
    CountingHook<GetTid> tids_;
    CountingHook<DrvSessionDestroy> destroys_;
    CountingHook<DrvConnect> connects_;
};

TEST_F(ClientSessionsLockTest, NoMutexIsHeldOverALineOrTheEndOfASession)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kOk.number);
    void* session = client_.GetPpcSession(0, PPCMessage::ZOLT);
    client_.RecvMsgProc(0, session, PPCMessage::ZOLT, Message(PPCMessage::START_RSP, 0, PPCMessage::CUSTOM_COMPUTE));
    connectFails_ = true;
    EXPECT_EQ(client_.GetPpcSession(1, PPCMessage::ZOLT), nullptr);
    client_.Destroy();
    EXPECT_EQ(destroys_.Count(), 1u);
    EXPECT_THAT(Lines(), testing::IsSupersetOf({kConnecting, kConnected, kConnectFailed, kDestroyExit}));
}

TEST_F(ClientSessionsLockTest, NoMutexIsHeldOverALineAboutMissingMemory)
{
    const Fd peer = Open(0, PPCMessage::ZOLT);
    CountingHook<calls::OperatorNew> news;
    const auto failFirst = [](uint64_t number, size_t) -> std::optional<void*> {
        if (number == 1) {
            throw std::bad_alloc();
        }
        return std::nullopt;
    };
    news.OnCall(failFirst);
    EXPECT_EQ(client_.SendHeartbeat(0, 0), kOk.number);
    news.Reset();
    news.OnCall(failFirst);
    EXPECT_EQ(client_.GetPpcSession(1, PPCMessage::ZOLT), nullptr);
    EXPECT_THAT(Lines(), testing::IsSupersetOf({kNoMemoryForDevice, kNoMemoryForSession}));
}

}  // namespace
}  // namespace gaktest
