// What gakppcd tells systemd, by the protocol of NOTIFY_SOCKET.

#include <poll.h>

#include <csignal>

#include "control_fixture.h"

namespace gaktest {
namespace {

// A service manager: the socket to which the daemon sends its states.
class Manager {
public:
    // A name that begins with @ is an abstract one.
    explicit Manager(const std::string& name = "/home/notify") : name_(name), socket_(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    }

    std::string Environment() const { return "NOTIFY_SOCKET=" + name_; }

    // The next state; empty when none comes in time.
    std::string Next(Deadline deadline = kLimit)
    {
        pollfd readable{socket_.get(), POLLIN, 0};
        char buffer[4096];
        if (poll(&readable, 1, deadline.RemainingMs()) != 1) {
            return "";
        }
        const ssize_t count = recv(socket_.get(), buffer, sizeof(buffer), 0);
        return {buffer, count > 0 ? static_cast<size_t>(count) : 0};
    }

    void Drain()
    {
        while (!Next(std::chrono::milliseconds(0)).empty()) {
        }
    }

    // Skips what comes before.
    testing::AssertionResult WaitFor(const std::string& state, Deadline deadline = kLimit)
    {
        std::string seen;
        for (std::string next; !(next = Next(deadline)).empty(); seen += next + "\n") {
            if (next == state) {
                return testing::AssertionSuccess();
            }
        }
        return testing::AssertionFailure() << state << " has not come, only\n" << seen;
    }

private:
    const std::string name_;
    Fd socket_;
};

TEST(ServiceManager, HearsOfReadinessWhenBothSocketsAccept)
{
    for (const std::string& name : {std::string("/home/notify"), "@gakppcd-test-" + std::to_string(getpid())}) {
        Manager manager(name);
        Tool daemon(kGakppcd, {}, Tool::Output::kPipe, {manager.Environment()});
        EXPECT_EQ(manager.Next(), "READY=1");
        EXPECT_TRUE(RawConnect(kServer).valid());
        EXPECT_TRUE(ControlPeer().socket().valid());
        daemon.Kill(SIGTERM);
        EXPECT_TRUE(daemon.Finish().ExitedWith(0));
        EXPECT_EQ(CountOf(daemon.err(), "gakppcd: "), 0U) << daemon.err();
    }
}

TEST(ServiceManager, HearsNothingOfADaemonThatCannotServe)
{
    const auto first = StartDaemon();
    Manager manager;
    Tool second(kGakppcd, {}, Tool::Output::kPipe, {manager.Environment()});
    EXPECT_TRUE(second.Finish().ExitedWith(1));
    EXPECT_EQ(manager.Next(std::chrono::milliseconds(0)), "");
}

TEST(ServiceManager, StatusCountsTheWorkersThatRun)
{
    Manager manager;
    const auto daemon = StartDaemon({}, {manager.Environment()});
    EXPECT_TRUE(manager.WaitFor("STATUS=0 workers running"));
    Fd first = StartWorker(*daemon, 0);
    EXPECT_EQ(manager.Next(), "STATUS=1 worker running");
    const Fd second = StartWorker(*daemon, 1);
    EXPECT_EQ(manager.Next(), "STATUS=2 workers running");
    first.Reset();
    EXPECT_EQ(manager.Next(), "STATUS=1 worker running");
    ASSERT_TRUE(WriteAll(second, PpcFrame(FromWorker(2, 1))));
    ASSERT_TRUE(daemon->WaitForOut("HEARTBEAT"));
    daemon->Kill(SIGTERM);
    EXPECT_EQ(manager.Next(), "STOPPING=1") << "a heartbeat changes no number";
}

TEST(ServiceManager, WatchdogIsFedAsLongAsTheLoopTurns)
{
    Manager manager;
    const auto daemon = StartDaemon({}, {manager.Environment(), "WATCHDOG_USEC=200000"});
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(manager.WaitFor("WATCHDOG=1"));
    }
    daemon->Kill(SIGSTOP);
    while (!manager.Next(std::chrono::milliseconds(300)).empty()) {
    }
    EXPECT_EQ(manager.Next(std::chrono::milliseconds(500)), "") << "the threads of the server do not feed it";
    daemon->Kill(SIGCONT);
    EXPECT_TRUE(manager.WaitFor("WATCHDOG=1"));
}

// Whether the daemon answers an order before it falls silent. What it tells the manager is read all the time, because
// it waits while the manager's queue is full.
bool Answers(const ControlPeer& peer, Manager& manager)
{
    do {
        manager.Drain();
        if (!peer.ReadLine(std::chrono::milliseconds(50)).empty()) {
            return true;
        }
    } while (!manager.Next(std::chrono::milliseconds(500)).empty());
    return false;
}

// A worker that does not read hangs the loop in the end: then nobody may say that it turns.
TEST(ServiceManager, WatchdogStarvesWhenTheLoopHangs)
{
    Manager manager;
    const auto daemon = StartDaemon({}, {manager.Environment(), "WATCHDOG_USEC=200000"});
    const Fd worker = StartWorker(*daemon);
    const ControlPeer peer;
    RawMessage custom = FromWorker(0, 0, 4712);
    custom.proc_type = 2;
    const Fd other = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(other, PpcFrame(custom)));
    ASSERT_TRUE(daemon->WaitForOut("pid 4712 STARTED"));
    do {
        ASSERT_TRUE(peer.Send("{\"order\":\"start-custom\",\"device\":0,\"pid\":4711}\n"));
    } while (Answers(peer, manager));
    ReadExactly(worker, 100000, std::chrono::milliseconds(500));
    EXPECT_TRUE(manager.WaitFor("WATCHDOG=1")) << "it goes on when the worker reads";
}

TEST(ServiceManager, NothingIsFedUnlessItIsAskedFor)
{
    for (const std::string watchdog : {"WATCHDOG_USEC=", "WATCHDOG_USEC=0"}) {
        Manager manager;
        const auto daemon = StartDaemon({}, {manager.Environment(), watchdog});
        EXPECT_TRUE(manager.WaitFor("STATUS=0 workers running"));
        daemon->Kill(SIGTERM);
        EXPECT_EQ(manager.Next(), "STOPPING=1");
        EXPECT_TRUE(daemon->Finish().ExitedWith(0));
        EXPECT_EQ(manager.Next(std::chrono::milliseconds(0)), "");
        unlink("/home/notify");
    }
    Manager manager;
    const auto other = StartDaemon({}, {manager.Environment(), "WATCHDOG_USEC=200000", "WATCHDOG_PID=1"});
    EXPECT_TRUE(manager.WaitFor("STATUS=0 workers running"));
    EXPECT_EQ(manager.Next(std::chrono::milliseconds(700)), "") << "another process is asked";
}

TEST(ServiceManager, EveryWayToStopIsTold)
{
    for (const std::string way : {"quit", "order", "signal"}) {
        Manager manager;
        const auto daemon = StartDaemon({}, {manager.Environment()});
        if (way == "quit") {
            daemon->Write("quit\n");
        } else if (way == "order") {
            EXPECT_TRUE(Ctl({"stop"}).status.ExitedWith(0));
        } else {
            daemon->Kill(SIGHUP);
        }
        EXPECT_TRUE(manager.WaitFor("STOPPING=1")) << way;
        EXPECT_TRUE(daemon->Finish().ExitedWith(0));
        unlink("/home/notify");
    }
}

TEST(ServiceManager, ThatIsNotThereDisturbsNothing)
{
    const auto daemon = StartDaemon({"--for", "0"}, {"NOTIFY_SOCKET=/home/nobody", "WATCHDOG_USEC=100000"});
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
    EXPECT_EQ(CountOf(daemon->err(), "gakppcd: "), 0U) << daemon->err();
}

}  // namespace
}  // namespace gaktest
