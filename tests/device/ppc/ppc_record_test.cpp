// How long the driver's records and descriptors live, and what calls in flight find when they end.

#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include "driver_test.h"
#include "held_mutexes.h"
#include "ppc_server.h"

namespace {

using namespace gaktest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kSessionsRecognised = 4096;
constexpr size_t kServersRecognised = 64;

// More than a socket takes in without a reader.
constexpr size_t kMoreThanASocketHolds = 8U << 20;

int SendBytes(PpcSession* session, size_t size, uint8_t fill = 1)
{
    const Message message(session, Bytes(size, fill));
    return drvPpcSend(session, message.msg, 0);
}

int ReceiveAny(PpcSession* session)
{
    const Message message(session);
    uint32_t count = 0;
    return drvPpcRecv(session, message.msg, 0, 0, &count);
}

template <typename F>
std::future<int> InThread(F&& call)
{
    return std::async(std::launch::async, std::forward<F>(call));
}

bool EndsInTime(const std::future<int>& result)
{
    return result.wait_for(Stretched(10s)) == std::future_status::ready;
}

// A thread that waits inside recv for a frame of the session.
class BlockedReceiver {
public:
    explicit BlockedReceiver(PpcSession* session)
    {
        recvCalls_.OnCall([this](uint64_t number, int, void*, size_t, int) -> std::optional<ssize_t> {
            if (number == 1) {
                entered_.set_value();
            }
            return std::nullopt;
        });
        result_ = InThread([session] { return ReceiveAny(session); });
    }
    bool IsInside() { return entered_.get_future().wait_for(Stretched(10s)) == std::future_status::ready; }
    bool EndsInTime() const { return ::EndsInTime(result_); }
    int Result() { return result_.get(); }

private:
    std::promise<void> entered_;
    CountingHook<calls::Recv> recvCalls_;
    std::future<int> result_;
};

// Whether the session carries a frame in both directions.
void ExpectUsable(PpcSession* session, const Fd& peer)
{
    EXPECT_EQ(SendBytes(session, 3, 0x55), PPC_OK);
    EXPECT_EQ(ReadFrame(peer, 5s), Bytes(3, 0x55));
    EXPECT_TRUE(WriteAll(peer, FrameBytes({9})));
    EXPECT_EQ(ReceiveAny(session), PPC_OK);
}

// ---- The descriptor of a call in flight ----

class InFlightTest : public DriverTest {
protected:
    // `call` has stopped at the gate inside the driver. Ends the handle meanwhile and tries to get its number.
    void ExpectNumberKept(int fd, std::future<int> call, const std::function<void()>& end, int code)
    {
        ASSERT_TRUE(gate_.WaitForArrivals(1));
        end();
        EXPECT_TRUE(IsOpen(fd)) << "closed under a call in flight";
        std::vector<Fd> others;
        for (int i = 0; i < 40; ++i) {
            others.emplace_back(dup(STDERR_FILENO));
            EXPECT_NE(others.back().get(), fd);
        }
        gate_.Open();
        ASSERT_TRUE(EndsInTime(call));
        EXPECT_EQ(call.get(), code);
        EXPECT_FALSE(IsOpen(fd)) << "leaked by the last call that left";
    }

    // Stops a hooked call at the gate and then lets it go on.
    template <typename R>
    auto AtGate()
    {
        return [this](auto...) -> std::optional<R> {
            gate_.Pass();
            return std::nullopt;
        };
    }

    Gate gate_;
};

TEST_F(InFlightTest, NumberOfASessionIsNotReusedUnderARecv)
{
    Connection connection;
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall(AtGate<ssize_t>());
    ExpectNumberKept(
        connection.FdNumber(), InThread([&] { return ReceiveAny(connection.session); }), [&] { connection.End(); },
        PPC_ERR_SOCKET_CLOSED);
}

TEST_F(InFlightTest, NumberOfASessionIsNotReusedUnderASend)
{
    Connection connection;
    CountingHook<calls::Writev> writevCalls;
    writevCalls.OnCall(AtGate<ssize_t>());
    ExpectNumberKept(
        connection.FdNumber(), InThread([&] { return SendBytes(connection.session, 10); }), [&] { connection.End(); },
        PPC_ERR_SEND);
}

TEST_F(InFlightTest, NumberOfAnEndpointIsNotReusedUnderAnAccept)
{
    Endpoint endpoint;
    CountingHook<calls::Accept> acceptCalls;
    acceptCalls.OnCall(AtGate<int>());
    PpcSession* session = nullptr;
    ExpectNumberKept(
        ViewOf(endpoint.server).listenFd, InThread([&] { return drvPpcSessionAccept(endpoint.server, &session); }),
        [&] { endpoint.End(); }, PPC_ERR_SOCKET_CLOSED);
    EXPECT_EQ(session, nullptr);
}

TEST_F(InFlightTest, LastOfSeveralCallsClosesTheDescriptor)
{
    Connection connection;
    const int fd = connection.FdNumber();
    Gate sendGate;
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall(AtGate<ssize_t>());
    CountingHook<calls::Writev> writevCalls;
    writevCalls.OnCall([&](uint64_t, int, const iovec*, int) -> std::optional<ssize_t> {
        sendGate.Pass();
        return std::nullopt;
    });
    std::future<int> receiver = InThread([&] { return ReceiveAny(connection.session); });
    std::future<int> sender = InThread([&] { return SendBytes(connection.session, 10); });
    ASSERT_TRUE(gate_.WaitForArrivals(1));
    ASSERT_TRUE(sendGate.WaitForArrivals(1));
    connection.End();
    gate_.Open();
    EXPECT_EQ(receiver.get(), PPC_ERR_SOCKET_CLOSED);
    EXPECT_TRUE(IsOpen(fd)) << "the sender is still inside";
    sendGate.Open();
    EXPECT_EQ(sender.get(), PPC_ERR_SEND);
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(InFlightTest, PeerSeesTheEndAtOnceThoughACallIsInFlight)
{
    Connection connection;
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall(AtGate<ssize_t>());
    std::future<int> receiver = InThread([&] { return ReceiveAny(connection.session); });
    ASSERT_TRUE(gate_.WaitForArrivals(1));
    connection.End();
    EXPECT_TRUE(ExpectEof(connection.peer, 5s));
    gate_.Open();
    EXPECT_EQ(receiver.get(), PPC_ERR_SOCKET_CLOSED);
}

TEST_F(InFlightTest, BlockedReceiverReturnsWhenTheSessionIsEnded)
{
    Connection connection;
    BlockedReceiver receiver(connection.session);
    ASSERT_TRUE(receiver.IsInside());
    connection.End();
    ASSERT_TRUE(receiver.EndsInTime());
    EXPECT_EQ(receiver.Result(), PPC_ERR_SOCKET_CLOSED);
}

TEST_F(InFlightTest, SenderBlockedOnAFullSocketReturnsWhenTheSessionIsEnded)
{
    Connection connection;
    std::future<int> sender = InThread([&] { return SendBytes(connection.session, kMoreThanASocketHolds); });
    ASSERT_TRUE(WaitReadable(connection.peer, 10s)) << "from now on the sender cannot finish";
    connection.End();
    ASSERT_TRUE(EndsInTime(sender));
    EXPECT_EQ(sender.get(), PPC_ERR_SEND);
}

TEST_F(InFlightTest, SendersThatWaitForTheSendMutexReturnWhenTheSessionIsEnded)
{
    Connection connection;
    std::vector<std::future<int>> senders;
    for (int i = 0; i < 3; ++i) {
        senders.push_back(InThread([&] { return SendBytes(connection.session, kMoreThanASocketHolds); }));
    }
    ASSERT_TRUE(WaitReadable(connection.peer, 10s));
    connection.End();
    for (std::future<int>& sender : senders) {
        ASSERT_TRUE(EndsInTime(sender));
        EXPECT_EQ(sender.get(), PPC_ERR_SEND);
    }
}

TEST_F(InFlightTest, EveryBlockedAcceptReturns25WhenTheEndpointIsDestroyed)
{
    Endpoint endpoint;
    const size_t before = OpenDescriptors();
    CountingHook<calls::Accept> acceptCalls;
    std::atomic<int> entered{0};
    acceptCalls.OnCall([&](uint64_t, int, sockaddr*, socklen_t*) -> std::optional<int> {
        ++entered;
        return std::nullopt;
    });
    PpcSession* sessions[3] = {};
    std::vector<std::future<int>> accepts;
    for (PpcSession*& session : sessions) {
        accepts.push_back(InThread([&] { return drvPpcSessionAccept(endpoint.server, &session); }));
    }
    ASSERT_TRUE(gaktest::WaitUntil([&] { return entered == 3; }, 10s));
    log_.Clear();
    endpoint.End();
    for (std::future<int>& accept : accepts) {
        ASSERT_TRUE(EndsInTime(accept));
        EXPECT_EQ(accept.get(), PPC_ERR_SOCKET_CLOSED);
    }
    EXPECT_THAT(sessions, testing::Each(nullptr));
    EXPECT_EQ(log_.Count(LogSink::kError, ""), 0u);
    EXPECT_EQ(log_.CountMessage(LogSink::kWarn, "Server socket closed pHead " + PointerText(endpoint.server)), 3u);
    EXPECT_EQ(OpenDescriptors(), before - 1);
}

// ---- Locks ----

// Plain mutexes have no failure that correct use can meet, and no C function can raise one.
TEST_F(DriverTest, LockThatClaimsToHaveFailedRaisesNothing)
{
    const Fd listener = RawListen(kServerId);
    const size_t before = OpenDescriptors();
    CountingHook<calls::Malloc> mallocCalls;
    const FreeCounter frees;
    CountingHook<calls::MutexLock> locks;
    CountingHook<calls::MutexUnlock> unlocks;
    locks.FailFrom(1, EINVAL, EINVAL);
    unlocks.FailFrom(1, 0, 0);
    PpcSession* session = nullptr;
    ASSERT_NO_THROW(ASSERT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_OK));
    ASSERT_NO_THROW(EXPECT_EQ(drvPpcSessionDestroy(session), PPC_OK));
    EXPECT_GT(locks.Count(), 2u);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(mallocCalls.Count() - frees.Count(), 1u) << "the record in quarantine";
}

// ---- Ended handles ----

struct EndFunction {
    const char* name;
    int (*end)(PpcSession*);
};

void PrintTo(const EndFunction& function, std::ostream* out)
{
    *out << function.name;
}

class SecondEndTest : public DriverTest, public testing::WithParamInterface<EndFunction> {};

TEST_P(SecondEndTest, ClosesNothingWhenTheNumberBelongsToAnother)
{
    Connection connection;
    const int fd = connection.FdNumber();
    connection.End();
    auto pair = gaktest::SocketPair();
    if (pair.first.get() != fd && pair.second.get() != fd) {
        ASSERT_EQ(dup2(pair.first.get(), fd), fd);
        pair.first.Reset(fd);
    }
    log_.Clear();
    EXPECT_EQ(GetParam().end(connection.session), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine(GetParam().name, "session " + PointerText(connection.session) + " is not open")));
    EXPECT_TRUE(WriteAll(pair.first, {1}));
    EXPECT_TRUE(WriteAll(pair.second, {1}));
}

TEST_P(SecondEndTest, LeavesANewSessionOfTheSameNumberAlone)
{
    const Fd listener = RawListen(kServerId);
    Connection first(listener);
    const int fd = first.FdNumber();
    first.End();
    Connection second(listener);
    ASSERT_EQ(second.FdNumber(), fd);
    EXPECT_EQ(GetParam().end(first.session), PPC_ERR_INVALID_VALUE);
    ExpectUsable(second.session, second.peer);
}

TEST_P(SecondEndTest, ByAnotherThreadAtTheSameTimeEndsOnce)
{
    for (int round = 0; round < 50; ++round) {
        PpcSession* session = nullptr;
        const Fd listener = RawListen(kServerId);
        ASSERT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_OK);
        const size_t before = OpenDescriptors();
        std::future<int> other = InThread([&] { return GetParam().end(session); });
        const int mine = GetParam().end(session);
        EXPECT_THAT(std::set<int>({mine, other.get()}), ElementsAre(PPC_OK, PPC_ERR_INVALID_VALUE));
        EXPECT_EQ(OpenDescriptors(), before - 1);
    }
}

INSTANTIATE_TEST_SUITE_P(, SecondEndTest,
                         testing::Values(EndFunction{"drvPpcSessionClose", &drvPpcSessionClose},
                                         EndFunction{"drvPpcSessionDestroy", &drvPpcSessionDestroy}),
                         [](const auto& function) { return function.param.name; });

class EndedHandleTest : public DriverTest {
protected:
    // Connects and ends `count` sessions, none of which may have the address `taken`.
    static void ConnectAndEnd(size_t count, const Fd& listener, const PpcSession* taken)
    {
        for (size_t i = 0; i < count; ++i) {
            PpcSession* session = nullptr;
            ASSERT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_OK);
            ASSERT_NE(session, taken);
            ASSERT_EQ(drvPpcSessionDestroy(session), PPC_OK);
            RawAccept(listener, 5s).Reset();
        }
    }

    static void CreateAndDestroy(size_t count, const PpcServerHead* taken)
    {
        for (size_t i = 0; i < count; ++i) {
            PpcServerHead* server = nullptr;
            ASSERT_EQ(drvPpcServerCreate(kServerId, &server), PPC_OK);
            ASSERT_NE(server, taken);
            ASSERT_EQ(drvPpcServerDestroy(server), PPC_OK);
        }
    }
};

TEST_F(EndedHandleTest, CallsOnAnEndedSessionFailAndTouchNobody)
{
    const Fd listener = RawListen(kServerId);
    Connection ended(listener);
    ended.End();
    const Connection other(listener);
    EXPECT_EQ(ViewOf(ended.session).fd, -1);
    log_.Clear();
    EXPECT_EQ(SendBytes(ended.session, 10), PPC_ERR_SEND);
    EXPECT_EQ(ReceiveAny(ended.session), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSocketSend", "send (sockfd -1)error: " + ErrnoText(EBADF) + "  -1 10 4"),
                            ErrorLine("drvPpcSend", "ppc send message error"),
                            InfoLine("drvPpcRecv", "client connection closed: " + ErrnoText(EBADF) + "(sock: -1)")));
    EXPECT_FALSE(WaitReadable(other.peer, 0s));
    ExpectUsable(other.session, other.peer);
}

// However far a receive had come when this end ended the session.
TEST_F(EndedHandleTest, ReceiveThatFailsBecauseThisEndEndedTheSessionGives25)
{
    Connection connection;
    ASSERT_TRUE(WriteAll(connection.peer, {0, 0, 0, 2, 1}));
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([&](uint64_t number, int, void*, size_t, int) -> std::optional<ssize_t> {
        if (number == 3) {  // of the payload
            connection.End();
        }
        return std::nullopt;
    });
    EXPECT_EQ(ReceiveAny(connection.session), PPC_ERR_SOCKET_CLOSED);
}

// It may see the reset of a peer that leaves at the same time.
TEST_F(EndedHandleTest, FailedPeekOfASessionThatThisEndEndedGives25)
{
    Connection connection;
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([&](uint64_t, int, void*, size_t, int) -> std::optional<ssize_t> {
        connection.End();
        errno = ECONNRESET;
        return -1;
    });
    EXPECT_EQ(ReceiveAny(connection.session), PPC_ERR_SOCKET_CLOSED);
}

// Of two reasons for which a session has no socket, this end's is the one that is reported.
TEST_F(EndedHandleTest, SessionThatLostItsSocketReadsAsClosedOnceItHasEnded)
{
    Connection connection;
    ASSERT_TRUE(WriteAll(connection.peer, FrameBytes({1})));
    {
        CountingHook<calls::Malloc> mallocCalls;
        mallocCalls.FailCall(2, nullptr, ENOMEM);  // the first one is the message descriptor's
        ASSERT_EQ(ReceiveAny(connection.session), PPC_ERR_NO_MEMORY);
    }
    EXPECT_EQ(ReceiveAny(connection.session), PPC_ERR_RECV);
    connection.End();
    EXPECT_EQ(ReceiveAny(connection.session), PPC_ERR_SOCKET_CLOSED);
}

TEST_F(EndedHandleTest, SessionIsRecognisedUntil4096MoreHaveEnded)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    Connection ended(listener);
    ended.End();
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised - 1, listener, ended.session));
    EXPECT_EQ(ViewOf(ended.session).magic, PPC_SESSION_MAGIC);
    EXPECT_EQ(SendBytes(ended.session, 10), PPC_ERR_SEND);
    EXPECT_EQ(ReceiveAny(ended.session), PPC_ERR_SOCKET_CLOSED);
    EXPECT_EQ(drvPpcSessionDestroy(ended.session), PPC_ERR_INVALID_VALUE);
}

TEST_F(EndedHandleTest, NoMoreThan4096EndedSessionsAreKept)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    CountingHook<calls::Malloc> mallocCalls;
    const FreeCounter frees;
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised + 100, listener, nullptr));
    EXPECT_EQ(mallocCalls.Count() - frees.Count(), kSessionsRecognised);
}

TEST_F(EndedHandleTest, EndedSessionThatIsReferencedAgainIsKept)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    Connection ended(listener);
    ended.End();
    void* const handle = ended.session;
    qel::PpcServer::GetInstance().SetPpcSession(0, 1, handle);  // a table entry refers to it
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised + 100, listener, ended.session));
    EXPECT_EQ(ViewOf(ended.session).magic, PPC_SESSION_MAGIC);
}

// The blocks that the library takes and frees, in order.
class Blocks {
public:
    Blocks()
    {
        freed.clear();
        mallocCalls_.OnCall([this](uint64_t, size_t size) {
            taken.push_back(CountingHook<calls::Malloc>::Real(size));
            return std::optional<void*>(taken.back());
        });
    }

    std::vector<void*> taken;
    static inline std::vector<void*> freed;

private:
    static void Free(void* block)
    {
        if (block != nullptr) {
            freed.push_back(block);
        }
        free(block);
    }

    CountingHook<calls::Malloc> mallocCalls_;
    gaktest::ImportHook freeHook_{"free", reinterpret_cast<void*>(&Free)};
};

// One that leaves the quarantine from the middle must not take its neighbours along.
TEST_F(EndedHandleTest, NeighboursOfASessionThatLeavesQuarantineAreFreedInOrder)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    Blocks blocks;
    Connection older(listener);
    Connection held(listener);
    Connection newer(listener);
    ASSERT_EQ(blocks.taken.size(), 3u);
    older.End();
    held.End();
    newer.End();
    void* const handle = held.session;
    qel::PpcServer::GetInstance().SetPpcSession(0, 1, handle);  // a table entry refers to it
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised - 2, listener, nullptr));
    EXPECT_THAT(Blocks::freed, IsEmpty());
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(3, listener, held.session));
    EXPECT_THAT(Blocks::freed, ElementsAre(blocks.taken[0], blocks.taken[2], blocks.taken[3]));
    EXPECT_EQ(ViewOf(held.session).magic, PPC_SESSION_MAGIC);
}

// Those that leave stand behind younger ones in the directory, open ones among them.
TEST_F(EndedHandleTest, OpenSessionsStayKnownWhenOlderOnesLeaveQuarantine)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised, listener, nullptr));
    std::vector<PpcSession*> open(64, nullptr);
    for (PpcSession*& session : open) {
        ASSERT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_OK);
        RawAccept(listener, 5s).Reset();
    }
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised, listener, nullptr));
    for (PpcSession* session : open) {
        EXPECT_EQ(drvPpcSessionDestroy(session), PPC_OK);
    }
}

// The last reference is on its way out when somebody else takes a new one.
TEST_F(EndedHandleTest, SessionReferencedWhileItsLastReferenceGoesIsKept)
{
    log_.SetMinimumLevel(99);
    const Fd listener = RawListen(kServerId);
    Connection ended(listener);
    {
        CountingHook<calls::MutexLock> locks;
        locks.OnCall([&](uint64_t number, pthread_mutex_t*) -> std::optional<int> {
            if (number == 2) {  // the first one ended the record, this one is to quarantine it
                void* const handle = ended.session;
                qel::PpcServer::GetInstance().SetPpcSession(0, 1, handle);
            }
            return std::nullopt;
        });
        ended.End();
        EXPECT_GT(locks.Count(), 2u);
    }
    ASSERT_NO_FATAL_FAILURE(ConnectAndEnd(kSessionsRecognised + 100, listener, ended.session));
    EXPECT_EQ(ViewOf(ended.session).magic, PPC_SESSION_MAGIC);
}

TEST_F(EndedHandleTest, EndpointIsRecognisedUntil64MoreHaveBeenDestroyed)
{
    Endpoint ended;
    ended.End();
    ASSERT_NO_FATAL_FAILURE(CreateAndDestroy(kServersRecognised - 1, ended.server));
    PpcSession* session = nullptr;
    EXPECT_EQ(ViewOf(ended.server).listenFd, -1);
    EXPECT_EQ(drvPpcSessionAccept(ended.server, &session), PPC_ERR_SOCKET_CLOSED);
    EXPECT_EQ(drvPpcServerDestroy(ended.server), PPC_ERR_INVALID_VALUE);
}

TEST_F(EndedHandleTest, NoMoreThan64DestroyedEndpointsAreKept)
{
    CountingHook<calls::Malloc> mallocCalls;
    const FreeCounter frees;
    ASSERT_NO_FATAL_FAILURE(CreateAndDestroy(kServersRecognised + 20, nullptr));
    EXPECT_EQ(mallocCalls.Count() - frees.Count(), kServersRecognised);
}

TEST_F(EndedHandleTest, SecondDestroyOfAnEndpointClosesNothing)
{
    Endpoint first;
    const int fd = ViewOf(first.server).listenFd;
    first.End();
    const Endpoint second;
    ASSERT_EQ(ViewOf(second.server).listenFd, fd);
    log_.Clear();
    EXPECT_EQ(drvPpcServerDestroy(first.server), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcServerDestroy", "server " + PointerText(first.server) + " is not open")));
    EXPECT_TRUE(RawConnect(kServerId).valid());
}

TEST_F(EndedHandleTest, AcceptOnADestroyedEndpointNeverAcceptsForAnother)
{
    Endpoint first;
    first.End();
    const Endpoint second;
    const Fd peer = RawConnect(kServerId);
    PpcSession* session = nullptr;
    EXPECT_EQ(drvPpcSessionAccept(first.server, &session), PPC_ERR_SOCKET_CLOSED);
    ASSERT_EQ(drvPpcSessionAccept(second.server, &session), PPC_OK);
    ExpectUsable(session, peer);
    EXPECT_EQ(drvPpcSessionClose(session), PPC_OK);
}

// ---- Processes ----

class ProcessTest : public DriverTest {};

TEST_F(ProcessTest, EveryDescriptorIsCloseOnExec)
{
    const Endpoint endpoint;
    PpcSession* connected = nullptr;
    PpcSession* accepted = nullptr;
    ASSERT_EQ(drvPpcSessionConnect(kServerId, &connected), PPC_OK);
    ASSERT_EQ(drvPpcSessionAccept(endpoint.server, &accepted), PPC_OK);
    for (const int fd : {ViewOf(endpoint.server).listenFd, ViewOf(connected).fd, ViewOf(accepted).fd}) {
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(drvPpcSessionDestroy(connected), PPC_OK);
    EXPECT_EQ(drvPpcSessionClose(accepted), PPC_OK);
}

TEST_F(ProcessTest, ChildThatEndsASessionDoesNotShutItDown)
{
    for (const auto end : {&drvPpcSessionClose, &drvPpcSessionDestroy}) {
        const Connection connection;
        ChildProcess child([&] {
            const int fd = connection.FdNumber();
            EXPECT_EQ(end(connection.session), PPC_OK);
            EXPECT_FALSE(IsOpen(fd)) << "the child's copy is closed";
            return 0;
        });
        EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
        ExpectUsable(connection.session, connection.peer);
    }
}

// The receiver exists in the parent only: nobody in the child will ever leave its call.
TEST_F(ProcessTest, ChildClosesItsCopyAtOnceThoughAParentsThreadReceives)
{
    const Connection connection;
    BlockedReceiver receiver(connection.session);
    ASSERT_TRUE(receiver.IsInside());
    ChildProcess child([&] {
        const int fd = connection.FdNumber();
        EXPECT_EQ(drvPpcSessionDestroy(connection.session), PPC_OK);
        EXPECT_FALSE(IsOpen(fd));
        return 0;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
    EXPECT_TRUE(WriteAll(connection.peer, FrameBytes({9})));
    EXPECT_EQ(receiver.Result(), PPC_OK) << "the parent's connection is undisturbed";
}

// A thread of the parent holds the directory's mutex when the process forks.
TEST_F(ProcessTest, ChildEndsASessionThoughAParentsThreadIsInTheDirectory)
{
    const Fd listener = RawListen(kServerId);
    const Connection connection(listener);
    CountingHook<calls::MutexUnlock> unlocks;
    std::promise<void> inside;
    std::atomic<bool> mayLeave{false};
    std::promise<void> childHasEnded;
    std::thread::id forking = std::this_thread::get_id();
    unlocks.OnCall([&](uint64_t number, pthread_mutex_t* mutex) -> std::optional<int> {
        if (number != 1 || std::this_thread::get_id() == forking) {
            return std::nullopt;
        }
        inside.set_value();
        gaktest::WaitUntil([&] { return mayLeave.load(); }, 2s);  // a fork that waits for the mutex goes on then
        const int result = unlocks.Real(mutex);
        childHasEnded.get_future().wait_for(Stretched(20s));  // the child finds nothing else of this thread's locked
        return result;
    });
    PpcSession* other = nullptr;
    std::future<int> connector = InThread([&] { return drvPpcSessionConnect(kServerId, &other); });
    ASSERT_EQ(inside.get_future().wait_for(Stretched(10s)), std::future_status::ready);
    ChildProcess child([&] { return drvPpcSessionDestroy(connection.session); });
    mayLeave = true;
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(PPC_OK));
    childHasEnded.set_value();
    EXPECT_EQ(connector.get(), PPC_OK);
    EXPECT_EQ(drvPpcSessionDestroy(other), PPC_OK);
    ExpectUsable(connection.session, connection.peer);
}

// _Fork runs no fork handlers.
TEST_F(ProcessTest, ChildOfABareForkWakesItsOwnReceiver)
{
    const Fd listener = RawListen(kServerId);
    const Connection before(listener);  // the parent's id may be remembered from now on
    const pid_t child = _Fork();
    if (child == 0) {
        gaktest::EndProcessAfter(10s);
        PpcSession* session = nullptr;
        const bool connected = drvPpcSessionConnect(kServerId, &session) == PPC_OK;
        CountingHook<calls::Recv> recvCalls;
        std::thread ender([&] {
            gaktest::WaitUntil([&] { return recvCalls.Count() > 0; }, 5s);
            drvPpcSessionDestroy(session);
        });
        const int code = connected ? ReceiveAny(session) : -1;
        ender.join();
        _exit(code == PPC_ERR_SOCKET_CLOSED ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(ProcessTest, ChildThatDestroysTheEndpointDoesNotShutItDown)
{
    const Endpoint endpoint;
    ChildProcess child([&] { return drvPpcServerDestroy(endpoint.server); });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(PPC_OK));
    const Fd peer = RawConnect(kServerId);
    PpcSession* session = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint.server, &session), PPC_OK);
    ExpectUsable(session, peer);
    EXPECT_EQ(drvPpcSessionClose(session), PPC_OK);
}

TEST_F(ProcessTest, ChildThatExitsTearsNothingDown)
{
    const Connection connection;
    ChildProcess child([] {
        exit(0);
        return 1;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
    ExpectUsable(connection.session, connection.peer);
}

// ---- SIGPIPE ----

std::atomic<int> handledSignals{0};

void CountSignal(int)
{
    ++handledSignals;
}

class SigpipeTest : public DriverTest {
protected:
    SigpipeTest() { connection_.peer.Reset(); }

    static sigset_t Only(int signal)
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        return set;
    }

    static void Block(bool block)
    {
        const sigset_t set = Only(SIGPIPE);
        ASSERT_EQ(pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr), 0);
    }

    static std::vector<int> Members(const sigset_t& set)
    {
        std::vector<int> members;
        for (int signal = 1; signal < NSIG; ++signal) {
            if (sigismember(&set, signal) == 1) {
                members.push_back(signal);
            }
        }
        return members;
    }

    static std::vector<int> Mask()
    {
        sigset_t set;
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        return Members(set);
    }

    static std::vector<int> Pending()
    {
        sigset_t set;
        sigpending(&set);
        return Members(set);
    }

    // Sends to the closed peer, as a session and as a bare descriptor.
    void ExpectSendGives27AndChangesNoSignalState()
    {
        struct sigaction before {};
        struct sigaction after {};
        sigaction(SIGPIPE, nullptr, &before);
        const std::vector<int> mask = Mask();
        const std::vector<int> pending = Pending();
        EXPECT_EQ(SendBytes(connection_.session, 10), PPC_ERR_SEND);
        EXPECT_EQ(drvPpcSocketSend(connection_.FdNumber(), "x", 1), PPC_ERR_SEND);
        sigaction(SIGPIPE, nullptr, &after);
        EXPECT_EQ(after.sa_handler, before.sa_handler);
        EXPECT_EQ(Mask(), mask);
        EXPECT_EQ(Pending(), pending);
        EXPECT_EQ(log_.Count(LogSink::kError, "send (sockfd"), 2u);
        EXPECT_EQ(log_.Count(LogSink::kError, ErrnoText(EPIPE)), 2u);
    }

    Connection connection_;
};

TEST_F(SigpipeTest, DefaultDispositionDoesNotKillTheProcess)
{
    signal(SIGPIPE, SIG_DFL);
    ExpectSendGives27AndChangesNoSignalState();
    EXPECT_THAT(Mask(), testing::Not(Contains(SIGPIPE)));
}

TEST_F(SigpipeTest, IgnoredSignalStaysIgnored)
{
    signal(SIGPIPE, SIG_IGN);
    ExpectSendGives27AndChangesNoSignalState();
}

TEST_F(SigpipeTest, HandlerOfTheProcessIsNotCalled)
{
    signal(SIGPIPE, &CountSignal);
    ExpectSendGives27AndChangesNoSignalState();
    EXPECT_EQ(handledSignals, 0);
    raise(SIGPIPE);
    EXPECT_EQ(handledSignals, 1) << "and is still in place";
}

TEST_F(SigpipeTest, BlockedSignalStaysBlockedAndIsNotLeftPending)
{
    Block(true);
    ExpectSendGives27AndChangesNoSignalState();
    EXPECT_THAT(Pending(), IsEmpty());
    EXPECT_THAT(Mask(), Contains(SIGPIPE));
}

TEST_F(SigpipeTest, SignalThatWasPendingStaysPending)
{
    signal(SIGPIPE, &CountSignal);
    Block(true);
    raise(SIGPIPE);
    ExpectSendGives27AndChangesNoSignalState();
    EXPECT_THAT(Pending(), ElementsAre(SIGPIPE));
    EXPECT_EQ(handledSignals, 0);
    Block(false);
    EXPECT_EQ(handledSignals, 1);
}

// A signal to the process and one to the thread do not merge: what the send raised must go, not wait next to the other.
TEST_F(SigpipeTest, SignalThatWasPendingForTheProcessIsDeliveredOnce)
{
    signal(SIGPIPE, &CountSignal);
    Block(true);
    kill(getpid(), SIGPIPE);
    ExpectSendGives27AndChangesNoSignalState();
    Block(false);
    EXPECT_EQ(handledSignals, 1);
}

TEST_F(SigpipeTest, OtherPendingSignalsStayPending)
{
    const sigset_t usr1 = Only(SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    raise(SIGUSR1);
    ExpectSendGives27AndChangesNoSignalState();
    EXPECT_THAT(Pending(), ElementsAre(SIGUSR1));
}

TEST_F(SigpipeTest, SuccessfulSendChangesNoSignalStateEither)
{
    const Connection open;
    Block(true);
    raise(SIGPIPE);
    EXPECT_EQ(SendBytes(open.session, 10), PPC_OK);
    EXPECT_THAT(Pending(), ElementsAre(SIGPIPE));
    EXPECT_THAT(Mask(), ElementsAre(SIGPIPE));
}

TEST_F(SigpipeTest, ManyThreadsMaySendToClosedPeers)
{
    signal(SIGPIPE, SIG_DFL);
    std::vector<std::future<int>> senders;
    for (int i = 0; i < 4; ++i) {
        senders.push_back(InThread([&] {
            int failures = 0;
            for (int round = 0; round < 50; ++round) {
                failures += SendBytes(connection_.session, 10) == PPC_ERR_SEND ? 1 : 0;
            }
            return failures;
        }));
    }
    for (std::future<int>& sender : senders) {
        EXPECT_EQ(sender.get(), 50);
    }
}

// ---- Frames stay whole ----

class WholeFrameTest : public DriverTest {};

// A handler that does not restart system calls, on the thread that is blocked in the middle of a frame.
TEST_F(WholeFrameTest, FrameCutByASignalEndsTheSession)
{
    struct sigaction action {};
    action.sa_handler = &CountSignal;
    sigaction(SIGUSR1, &action, nullptr);
    const Connection connection;
    std::promise<pthread_t> thread;
    std::future<int> sender = InThread([&] {
        thread.set_value(pthread_self());
        return SendBytes(connection.session, kMoreThanASocketHolds);
    });
    const pthread_t senderThread = thread.get_future().get();
    ASSERT_TRUE(WaitReadable(connection.peer, 10s)) << "part of the frame is out, and the rest cannot follow";
    pthread_kill(senderThread, SIGUSR1);
    ASSERT_TRUE(EndsInTime(sender));
    EXPECT_EQ(sender.get(), PPC_ERR_SEND);
    const Bytes part = gaktest::ReadExactly(connection.peer, 4 + kMoreThanASocketHolds, 10s);
    EXPECT_LT(part.size(), 4 + kMoreThanASocketHolds);
    EXPECT_TRUE(ExpectEof(connection.peer, 5s));
    EXPECT_EQ(SendBytes(connection.session, 1), PPC_ERR_SEND);
}

TEST_F(WholeFrameTest, FramesOfSeveralSendersDoNotMix)
{
    const Connection connection;
    constexpr int kSenders = 4;
    constexpr int kRounds = 5;
    std::vector<std::future<int>> senders;
    for (int i = 0; i < kSenders; ++i) {
        senders.push_back(InThread([&, fill = static_cast<uint8_t>(i + 1)] {
            int code = PPC_OK;
            for (int round = 0; round < kRounds && code == PPC_OK; ++round) {
                code = SendBytes(connection.session, 40, fill);
                code = code == PPC_OK ? SendBytes(connection.session, 1U << 20, fill) : code;
            }
            return code;
        }));
    }
    std::map<std::pair<size_t, uint8_t>, int> received;  // by size and filling
    for (int i = 0; i < kSenders * kRounds * 2; ++i) {
        const std::optional<Bytes> frame = ReadFrame(connection.peer, 10s);
        ASSERT_TRUE(frame.has_value());
        ASSERT_FALSE(frame->empty());
        ASSERT_TRUE(*frame == Bytes(frame->size(), frame->front())) << "mixed";
        ++received[{frame->size(), frame->front()}];
    }
    for (std::future<int>& sender : senders) {
        EXPECT_EQ(sender.get(), PPC_OK);
    }
    std::map<std::pair<size_t, uint8_t>, int> wanted;
    for (uint8_t fill = 1; fill <= kSenders; ++fill) {
        wanted[{40, fill}] = kRounds;
        wanted[{1U << 20, fill}] = kRounds;
    }
    EXPECT_EQ(received, wanted);
}

// A reader and a writer use a session at the same time.
TEST_F(WholeFrameTest, ReceiverBlockedOnASessionDoesNotHoldUpItsSender)
{
    const Connection connection;
    BlockedReceiver receiver(connection.session);
    ASSERT_TRUE(receiver.IsInside());
    EXPECT_EQ(SendBytes(connection.session, 3, 0x55), PPC_OK);
    EXPECT_EQ(ReadFrame(connection.peer, 5s), Bytes(3, 0x55));
    EXPECT_TRUE(WriteAll(connection.peer, FrameBytes({9})));
    EXPECT_EQ(receiver.Result(), PPC_OK);
}

// ---- Stopping accept, as the server does it before it destroys the endpoint ----

class StopAcceptTest : public DriverTest {
protected:
    // Destroys a server that is inside an accept, or between two. Nobody connects to wake it.
    void ExpectDestroyWaitsForNoTimeToPass()
    {
        const CountingHook<calls::Poll> timedWaits;
        EXPECT_EQ(server_.Destroy(), 0x1011000u);
        EXPECT_EQ(timedWaits.Count(), 0u);
    }

    qel::PpcServer& server_ = qel::PpcServer::GetInstance();
};

TEST_F(StopAcceptTest, WorksWhenAnotherServerHasTakenThePath)
{
    const size_t before = OpenDescriptors();
    {
        const CountingHook<calls::Accept> acceptCalls;
        ASSERT_EQ(server_.CreateServer(kServerId), 0x1011000u);
        ASSERT_TRUE(gaktest::WaitUntil([&] { return acceptCalls.Count() > 0; }, 10s));
        const Fd other = RawListen(kServerId);
        ExpectDestroyWaitsForNoTimeToPass();
        EXPECT_FALSE(WaitReadable(other, 0s)) << "nobody connects to wake the thread";
    }
    EXPECT_EQ(log_.Count(LogSink::kError, ""), 0u);
    EXPECT_EQ(OpenDescriptors(), before);
}

// A process may put a transport of its own under the server. Nothing is mapped at this handle.
PpcServerHead* const kForeignServer = reinterpret_cast<PpcServerHead*>(0x1000);
std::atomic<int> foreignAccepts{0};
std::atomic<int> foreignDestroys{0};

int ForeignServerCreate(int, PpcServerHead** server)
{
    *server = kForeignServer;
    return PPC_OK;
}

int ForeignAccept(PpcServerHead* server, PpcSession**)
{
    EXPECT_EQ(server, kForeignServer);
    ++foreignAccepts;
    return PPC_ERR_SOCKET_ACCEPT;
}

int ForeignServerDestroy(PpcServerHead* server)
{
    EXPECT_EQ(server, kForeignServer);
    ++foreignDestroys;
    return PPC_OK;
}

TEST_F(StopAcceptTest, IsHarmlessOnAServerThatTheDriverDidNotCreate)
{
    log_.SetMinimumLevel(99);
    const gaktest::ImportHook create("drvPpcServerCreate", reinterpret_cast<void*>(&ForeignServerCreate));
    const gaktest::ImportHook accept("drvPpcSessionAccept", reinterpret_cast<void*>(&ForeignAccept));
    const gaktest::ImportHook destroy("drvPpcServerDestroy", reinterpret_cast<void*>(&ForeignServerDestroy));
    CountingHook<calls::Shutdown> shutdownCalls;
    ASSERT_EQ(server_.CreateServer(kServerId), 0x1011000u);
    ASSERT_TRUE(gaktest::WaitUntil([] { return foreignAccepts > 0; }, 10s));
    ExpectDestroyWaitsForNoTimeToPass();
    EXPECT_EQ(foreignDestroys, 1);
    EXPECT_EQ(shutdownCalls.Count(), 0u);
}

}  // namespace
