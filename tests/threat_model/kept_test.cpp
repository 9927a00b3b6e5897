// Behaviour that looks odd and is kept: a daemon has to know it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gak.h"
#include "sanitizer_options.h"
#include "server_fixture.h"
#include "sleeper.h"

namespace {

using namespace gaktest;
using qel::PPCMessage;
using testing::IsEmpty;
namespace calls = gaktest::calls;

// The bytes by which a process tells another one how far it has come.
class Progress {
public:
    Progress() : ends_(gaktest::SocketPair()) {}

    void Report(char step) const { EXPECT_EQ(write(ends_.second.get(), &step, 1), 1); }
    // The next step, 0 when none came in time.
    char Next() const
    {
        char step = 0;
        return gaktest::WaitReadable(ends_.first, 20s) && read(ends_.first.get(), &step, 1) == 1 ? step : '\0';
    }
    bool NothingFor(std::chrono::milliseconds time) const { return !gaktest::WaitReadable(ends_.first, time); }

private:
    std::pair<Fd, Fd> ends_;
};

class KeptTest : public ServerTest {};

// ---- What the daemon is told ----

TEST_F(KeptTest, WorkerThatDiesWithAnUnreadMessageIsNotReported)
{
    WorkerProcess worker([](Fd& socket) {
        WriteAll(socket, PpcFrame(Report(1, 7)));
        return gaktest::WaitReadable(socket, 20s) ? 0 : 1;  // and does not read it
    });
    Handle(0);
    Handle(6);
    Create();
    worker.Start();
    ASSERT_TRUE(Inbox::WaitFor(1));
    EXPECT_EQ(server_.SendData(Order(1, 7)), kOk);
    EXPECT_TRUE(worker.Process().WaitExit(20s).ExitedWith(0));
    ASSERT_TRUE(WaitForExits(1));
    EXPECT_EQ(log_.Count("[GAKPPCIF] drvPpcRecv fail 26"), 1u);
    EXPECT_EQ(Inbox::Messages().size(), 1u) << "a SOCKET_CLOSE";
}

TEST_F(KeptTest, DeathOfARejectedWorkerIsNotReported)
{
    Handle(6);
    Create();
    Fd worker = Connect();
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_0", 1));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(Report(4, 7))));
    EXPECT_TRUE(ThreadsBecome("ppc_srv_recv_0", 0));
    worker.Reset();
    EXPECT_EQ(server_.Destroy(), kOk);
    EXPECT_THAT(Inbox::Messages(), IsEmpty());
}

TEST_F(KeptTest, DestroyWaitsForTheHandlerThatRuns)
{
    Handle(2);
    Create();
    std::promise<void> entered;
    std::promise<void> leave;
    Inbox::OnMessage([&](const PPCMessage&) {
        entered.set_value();
        leave.get_future().wait();
    });
    const Fd worker = Connect();
    ASSERT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7, 2))));
    entered.get_future().wait();
    auto destroyed = std::async(std::launch::async, [this] { return server_.Destroy(); });
    EXPECT_TRUE(gaktest::ExpectEof(worker, 10s));  // what comes before the wait for the threads is done
    EXPECT_EQ(destroyed.wait_for(100ms), std::future_status::timeout);
    leave.set_value();
    EXPECT_EQ(destroyed.get(), kOk);
}

// ---- What grows ----

TEST_F(KeptTest, DeadWorkerLeavesAFewHundredBytes)
{
    if (gaktest::kUnderSanitizer) {
        GTEST_SKIP() << "the sanitizer's heap is not the C library's";
    }
    constexpr uint32_t kWorkers = 500;
    Create();
    log_.SetMinimumLevel(3);
    uint32_t pid = 0;
    const auto liveAndDie = [&] {
        log_.Clear();
        for (uint32_t number = 0; number < kWorkers; ++number) {
            const Fd worker = gaktest::RawConnect(static_cast<int>(kServerId));
            ASSERT_TRUE(WriteAll(worker, PpcFrame(Report(1, ++pid))));
        }
        ASSERT_TRUE(WaitForExits(kWorkers));
        server_.JoinAllPPCRcvThreads();
        ASSERT_NE(server_.GetPpcSession(1, pid), nullptr);
        log_.Clear();
    };
    ASSERT_NO_FATAL_FAILURE(liveAndDie());  // what the first workers of a process take is not theirs alone
    const size_t before = mallinfo2().uordblks;
    ASSERT_NO_FATAL_FAILURE(liveAndDie());
    const double each = static_cast<double>(mallinfo2().uordblks - before) / kWorkers;
    printf("%.0f bytes for each worker\n", each);
    EXPECT_GT(each, 100);
    EXPECT_LT(each, 400);
}

// ---- Children of the daemon ----

// A program that runs until the end of the scope.
class Sleeper {
public:
    Sleeper() : pid_(gaktest::SpawnSleeper()) { EXPECT_GT(pid_, 0); }
    ~Sleeper()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    std::vector<std::string> Sockets() const
    {
        EXPECT_TRUE(gaktest::BecomesSleeper(pid_));
        return gaktest::SocketsOf(pid_);
    }

private:
    const pid_t pid_;
};

TEST_F(KeptTest, ProgramStartedRightAfterAnAcceptInheritsThatSession)
{
    Create();
    std::unique_ptr<Sleeper> early;
    CountingHook<calls::Fcntl> fcntls;
    fcntls.OnCall([&](uint64_t, int, int command, long) -> std::optional<int> {
        if (command == F_SETFD && early == nullptr) {
            early = std::make_unique<Sleeper>();
        }
        return std::nullopt;
    });
    const Fd worker = Connect();
    ASSERT_NE(early, nullptr);
    EXPECT_EQ(early->Sockets().size(), 1u);
    EXPECT_THAT(Sleeper().Sockets(), IsEmpty());
}

// The child of a daemon that forks without executing a program holds copies of all sessions.
TEST(KeptProcessTest, ForkedChildThatLivesOnKeepsTheSessionsOfAKilledDaemon)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    ASSERT_EQ(ppcInit(), 0);
    const auto [out, in] = gaktest::SocketPair();
    static int report = -1;
    report = in.get();
    ChildProcess daemon([&ownEnd = out]() -> int {
        close(ownEnd.get());
        qel::PpcServer& server = qel::PpcServer::GetInstance();
        server.RegPPCSerMsgProcFunc(0, [](const PPCMessage&) {
            const pid_t child = fork();
            if (child == 0) {
                char byte = 0;
                _exit(static_cast<int>(read(report, &byte, 1)));  // lives as long as the test
            }
            EXPECT_EQ(write(report, &child, sizeof(child)), static_cast<ssize_t>(sizeof(child)));
        });
        if (server.CreateServer(kServerId) != kOk) {
            return 1;
        }
        for (;;) {
            pause();
        }
    });
    Fd worker;
    ASSERT_TRUE(WaitUntil(
        [&] {
            worker = gaktest::RawConnect(static_cast<int>(kServerId));
            return worker.valid();
        },
        20s));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(Report(1, 7))));
    pid_t child = -1;
    ASSERT_TRUE(gaktest::WaitReadable(out, 20s));
    ASSERT_EQ(read(out.get(), &child, sizeof(child)), static_cast<ssize_t>(sizeof(child)));
    ASSERT_GT(child, 0);
    daemon.Kill(SIGKILL);
    EXPECT_TRUE(daemon.WaitExit(20s).KilledBy(SIGKILL));
    EXPECT_FALSE(gaktest::WaitReadable(worker, 0s));
    kill(child, SIGKILL);
    EXPECT_TRUE(gaktest::ExpectEof(worker, 20s));
    waitpid(child, nullptr, 0);
}

TEST(KeptProcessTest, ProgramWithAHiddenSecondCopyOfTheMessagesAborts)
{
    auto [out, in] = gaktest::SocketPair();
    ChildProcess program([&errors = in]() -> int {
        const rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        dup2(errors.get(), STDERR_FILENO);
        execl(GAKPPC_HIDDEN_MESSAGES_PROGRAM, GAKPPC_HIDDEN_MESSAGES_PROGRAM, nullptr);
        return 1;
    });
    in.Reset();
    const gaktest::ExitStatus status = program.WaitExit(20s);
    EXPECT_TRUE(status.KilledBy(SIGABRT)) << status;
    const gaktest::Bytes text = gaktest::ReadExactly(out, 65536, 20s);
    EXPECT_THAT(std::string(text.begin(), text.end()), testing::HasSubstr("File already exists in database"));
}

// ---- The queue of the listening socket ----

// Connects until the queue of the server's socket is full. The peers stay in it until they are accepted.
std::vector<Fd> FillQueue()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    gaktest::SocketPath(static_cast<int>(kServerId)).copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::vector<Fd> peers;
    for (;;) {
        Fd peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(peer.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            EXPECT_EQ(errno, EAGAIN);
            return peers;
        }
        peers.push_back(std::move(peer));
    }
}

TEST(KeptQueueTest, ElevenConnectionsWaitToBeAccepted)
{
    PpcServerHead* server = nullptr;
    ASSERT_EQ(ppcInit(), 0);
    ASSERT_EQ(drvPpcServerCreate(kServerId, &server), PPC_OK);
    EXPECT_EQ(FillQueue().size(), 11u);
    EXPECT_EQ(drvPpcServerDestroy(server), PPC_OK);
}

// Counts the client's connects, and says when one of them begins to wait for a full queue and when it returns.
class WatchedConnects {
public:
    WatchedConnects(uint64_t watched, const Progress& progress)
    {
        connects_.OnCall(
            [=, &progress](uint64_t number, int fd, const sockaddr* address, socklen_t length) -> std::optional<int> {
                if (number != watched) {
                    return std::nullopt;
                }
                progress.Report('c');
                const int result = CountingHook<calls::Connect>::Real(fd, address, length);
                const int error = errno;
                progress.Report('C');
                errno = error;
                return result;
            });
    }

private:
    CountingHook<calls::Connect> connects_;
};

TEST(KeptQueueTest, ConnectToAFullQueueHoldsUpTheOtherSessionsOfTheProcess)
{
    ASSERT_EQ(ppcInit(), 0);
    Fd listener = gaktest::RawListen(kServerId, 1);
    ASSERT_EQ(GakHeartbeatSend(0, 0), 0u);
    const Fd first = gaktest::RawAccept(listener, 20s);
    EXPECT_TRUE(gaktest::ReadPpcFrame(first, 20s).has_value());
    const std::vector<Fd> waiting = FillQueue();
    const Progress progress;
    const WatchedConnects connects(1, progress);
    auto blocked = std::async(std::launch::async, [] { return GakHeartbeatSend(1, 0); });
    EXPECT_EQ(progress.Next(), 'c');
    auto other = std::async(std::launch::async, [] { return GakHeartbeatSend(0, 0); });
    EXPECT_FALSE(gaktest::WaitReadable(first, 200ms));
    listener.Reset();
    EXPECT_EQ(progress.Next(), 'C');
    EXPECT_EQ(blocked.get(), 0x1093031u);
    EXPECT_EQ(other.get(), 0u);
    EXPECT_TRUE(gaktest::ReadPpcFrame(first, 20s).has_value());
}

const Progress* exitProgress = nullptr;

// A worker with one session that leaves while a thread of it waits for a second one.
[[noreturn]] void ExitDuringAConnect(const Progress& orders, const Progress& progress)
{
    exitProgress = &progress;
    // Exit handlers run in the reverse order of their registration, the client's between these two.
    atexit([] {
        exitProgress->Report('D');
        _exit(0);
    });
    ppcInit();
    static WatchedConnects connects(2, progress);
    GakHeartbeatSend(0, 0);
    atexit([] { exitProgress->Report('B'); });
    if (orders.Next() != 'f') {
        _exit(1);
    }
    std::thread([] { GakHeartbeatSend(1, 0); }).detach();
    if (orders.Next() != 'x') {
        _exit(1);
    }
    exit(2);
}

TEST(KeptQueueTest, ExitWaitsForAConnectToAFullQueue)
{
    Fd listener = gaktest::RawListen(kServerId, 1);
    const Progress orders;
    const Progress progress;
    ChildProcess worker([&]() -> int {
        listener.Reset();  // the parent alone decides how long it lives
        ExitDuringAConnect(orders, progress);
    });
    const Fd first = gaktest::RawAccept(listener, 20s);
    ASSERT_TRUE(gaktest::ReadPpcFrame(first, 20s).has_value());
    const std::vector<Fd> waiting = FillQueue();
    orders.Report('f');
    ASSERT_EQ(progress.Next(), 'c');
    orders.Report('x');
    ASSERT_EQ(progress.Next(), 'B');
    EXPECT_TRUE(progress.NothingFor(200ms));
    listener.Reset();
    EXPECT_EQ(progress.Next(), 'C');
    EXPECT_EQ(progress.Next(), 'D');
    EXPECT_TRUE(worker.WaitExit(20s).ExitedWith(0));
}

// ---- Time ----

timeval TimeLimit(int fd, int option)
{
    timeval limit = {-1, -1};
    socklen_t size = sizeof(limit);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &limit, &size), 0);
    return limit;
}

TEST(KeptQueueTest, SocketsHaveNoTimeLimit)
{
    ASSERT_EQ(ppcInit(), 0);
    std::vector<int> sockets;
    CountingHook<calls::Fcntl> fcntls;  // called once for every descriptor of the driver
    fcntls.OnCall([&](uint64_t, int fd, int, long) -> std::optional<int> {
        sockets.push_back(fd);
        return std::nullopt;
    });
    PpcServerHead* server = nullptr;
    PpcSession* client = nullptr;
    PpcSession* accepted = nullptr;
    ASSERT_EQ(drvPpcServerCreate(kServerId, &server), PPC_OK);
    ASSERT_EQ(drvPpcSessionConnect(kServerId, &client), PPC_OK);
    ASSERT_EQ(drvPpcSessionAccept(server, &accepted), PPC_OK);
    ASSERT_EQ(sockets.size(), 3u);
    for (const int fd : sockets) {
        for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
            const timeval limit = TimeLimit(fd, option);
            EXPECT_TRUE(limit.tv_sec == 0 && limit.tv_usec == 0) << fd;
        }
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << fd;
    }
    EXPECT_EQ(drvPpcSessionDestroy(client), PPC_OK);
    EXPECT_EQ(drvPpcSessionClose(accepted), PPC_OK);
    EXPECT_EQ(drvPpcServerDestroy(server), PPC_OK);
}

}  // namespace
