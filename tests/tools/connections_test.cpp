#include "common/connections.h"

#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <grp.h>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>

#include "common/exit_error.h"
#include "common/ppc_socket.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"

namespace gaktest {
namespace {

using tools::Connection;
using tools::ConnectionState;
using tools::FindServerSockets;
using tools::Reach;
using tools::ServerSocket;
using tools::SocketHolder;

constexpr int kServer = 19280;
constexpr std::chrono::seconds kLimit{20};

uint32_t NumberOf(const Fd& socket)
{
    struct stat status {};
    fstat(socket.get(), &status);
    return static_cast<uint32_t>(status.st_ino);
}

uint32_t BytesToRead(const Fd& socket)
{
    int bytes = -1;
    ioctl(socket.get(), FIONREAD, &bytes);
    return static_cast<uint32_t>(bytes);
}

std::vector<pid_t> PidsOf(const std::vector<SocketHolder>& holders)
{
    std::vector<pid_t> pids;
    pids.reserve(holders.size());
    for (const SocketHolder& holder : holders) {
        pids.push_back(holder.pid);
    }
    return pids;
}

// A process that runs `body` and then waits until it is killed.
class Waiting {
public:
    explicit Waiting(const std::function<void()>& body)
    {
        auto [ours, theirs] = SocketPair();
        process_ = std::make_unique<ChildProcess>([&body, &theirs = theirs] {
            body();
            WriteAll(theirs, {1});
            for (;;) {
                pause();
            }
            return 0;
        });
        EXPECT_EQ(ReadExactly(ours, 1, kLimit).size(), 1U);
    }

    pid_t pid() const { return process_->pid(); }
    void End()
    {
        process_->Kill(SIGKILL);
        EXPECT_TRUE(process_->WaitExit(kLimit).KilledBy(SIGKILL));
    }

private:
    std::unique_ptr<ChildProcess> process_;
};

class ConnectionsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (kUnderEmulator) {
            GTEST_SKIP() << "the emulator knows no NETLINK_SOCK_DIAG";
        }
    }

    void Connect()
    {
        worker_ = RawConnect(kServer);
        daemon_ = RawAccept(listener_, kLimit);
        ASSERT_TRUE(daemon_.valid());
    }

    static ServerSocket OnlyServer()
    {
        const auto servers = FindServerSockets().servers;
        EXPECT_EQ(servers.size(), 1U);
        return servers.empty() ? ServerSocket{} : servers.front();
    }

    static Connection OnlyConnection()
    {
        const ServerSocket server = OnlyServer();
        EXPECT_EQ(server.connections.size(), 1U);
        return server.connections.empty() ? Connection{} : server.connections.front();
    }

    Fd listener_ = RawListen(kServer);
    Fd worker_;
    Fd daemon_;
};

TEST_F(ConnectionsTest, NobodyListens)
{
    listener_.Reset();
    EXPECT_TRUE(FindServerSockets().servers.empty());
}

TEST_F(ConnectionsTest, DaemonWithoutWorkers)
{
    const ServerSocket server = OnlyServer();
    EXPECT_FALSE(server.isTap);
    EXPECT_EQ(server.reach, Reach::kDirect);
    EXPECT_EQ(server.socket, NumberOf(listener_));
    EXPECT_EQ(server.user, geteuid());
    ASSERT_EQ(PidsOf(server.processes), std::vector{getpid()});
    EXPECT_EQ(server.processes[0].descriptors, std::vector{listener_.get()});
    EXPECT_EQ(server.processes[0].program, "connections_tes") << "15 characters are kept";
    EXPECT_TRUE(server.connections.empty());
}

TEST_F(ConnectionsTest, BothEndsWithTheirProcessesAndDescriptors)
{
    int workersDescriptor = RawConnect(kServer).get();
    daemon_ = RawAccept(listener_, kLimit);  // of that one, which has ended
    daemon_.Reset();
    Fd listener = std::move(listener_);
    const Waiting worker([&] {
        listener.Reset();
        static const Fd connection = RawConnect(kServer);
        EXPECT_LE(connection.get(), workersDescriptor + 1);
    });
    listener_ = std::move(listener);
    daemon_ = RawAccept(listener_, kLimit);
    const Connection connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kEstablished);
    EXPECT_EQ(connection.daemon.socket, NumberOf(daemon_));
    ASSERT_EQ(PidsOf(connection.daemon.processes), std::vector{getpid()});
    EXPECT_EQ(connection.daemon.processes[0].descriptors, std::vector{daemon_.get()});
    ASSERT_EQ(PidsOf(connection.worker.processes), std::vector{worker.pid()});
    ASSERT_EQ(connection.worker.processes[0].descriptors.size(), 1U);
    struct stat descriptor {};
    const std::string path = "/proc/" + std::to_string(worker.pid()) + "/fd/" +
                             std::to_string(connection.worker.processes[0].descriptors[0]);
    ASSERT_EQ(stat(path.c_str(), &descriptor), 0);
    EXPECT_EQ(connection.worker.socket, descriptor.st_ino);
    EXPECT_EQ(connection.worker.user, geteuid());
}

TEST_F(ConnectionsTest, UnreadBytesAreThoseOfEachDirection)
{
    Connect();
    EXPECT_EQ(OnlyConnection().daemon.unread, 0U);
    EXPECT_EQ(OnlyConnection().worker.unread, 0U);
    ASSERT_TRUE(WriteAll(worker_, Bytes(1000)));
    ASSERT_TRUE(WriteAll(daemon_, Bytes(70000)));
    ASSERT_TRUE(WriteAll(daemon_, Bytes(1)));
    ASSERT_EQ(ReadExactly(worker_, 7, kLimit).size(), 7U);
    EXPECT_EQ(OnlyConnection().daemon.unread, 1000U);
    EXPECT_EQ(OnlyConnection().worker.unread, 69994U);
    EXPECT_EQ(OnlyConnection().worker.unread, BytesToRead(worker_));
}

TEST_F(ConnectionsTest, ConnectionThatWasNotAcceptedIsPending)
{
    worker_ = RawConnect(kServer);
    const Connection connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kPending);
    EXPECT_EQ(connection.daemon.socket, 0U);
    EXPECT_TRUE(connection.daemon.processes.empty());
    EXPECT_EQ(connection.daemon.unread, 0U);
    EXPECT_EQ(connection.worker.socket, NumberOf(worker_));
    EXPECT_EQ(PidsOf(connection.worker.processes), std::vector{getpid()});
    EXPECT_EQ(connection.worker.unread, 0U);
    ASSERT_TRUE(WriteAll(worker_, Bytes(10)));
    EXPECT_EQ(OnlyConnection().daemon.unread, std::nullopt) << "that they wait can be seen, not how many";
}

TEST_F(ConnectionsTest, PendingConnectionWhoseWorkerHasEnded)
{
    worker_ = RawConnect(kServer);
    worker_.Reset();
    const Connection connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kPending);
    EXPECT_EQ(connection.worker.socket, 0U);
    EXPECT_EQ(connection.worker.user, std::nullopt);
    EXPECT_EQ(connection.daemon.unread, std::nullopt);
}

TEST_F(ConnectionsTest, PendingConnectionsThatTheKernelDoesNotName)
{
    listener_ = RawListen(kServer, 4096);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<Fd> workers;
    for (int i = 0; i < 3000; ++i) {
        workers.push_back(RawConnect(kServer));
        if (!workers.back().valid()) {
            GTEST_SKIP() << "not so many descriptors, or a shorter queue";
        }
    }
    const ServerSocket server = OnlyServer();
    ASSERT_EQ(server.connections.size(), 3000U);
    EXPECT_EQ(server.connections[7].state, ConnectionState::kPending);
    EXPECT_EQ(server.connections[7].worker.unread, std::nullopt);
}

TEST_F(ConnectionsTest, BytesOfAWorkerThatHasEndedStillWait)
{
    Connect();
    ASSERT_TRUE(WriteAll(worker_, Bytes(123)));
    worker_.Reset();
    const Connection connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kEnded);
    EXPECT_EQ(connection.daemon.unread, 123U);
    EXPECT_EQ(connection.worker.socket, 0U);
    EXPECT_EQ(connection.worker.unread, 0U);
    EXPECT_TRUE(connection.worker.processes.empty());
    daemon_.Reset();
    EXPECT_TRUE(OnlyServer().connections.empty());
}

TEST_F(ConnectionsTest, EndsThatForkedChildrenHoldAsWell)
{
    Connect();
    const Waiting child([] {});
    const Connection connection = OnlyConnection();
    EXPECT_EQ(PidsOf(connection.worker.processes), (std::vector{getpid(), child.pid()}));
    EXPECT_EQ(PidsOf(connection.daemon.processes), (std::vector{getpid(), child.pid()}));
    EXPECT_EQ(PidsOf(OnlyServer().processes), (std::vector{getpid(), child.pid()}));
}

TEST_F(ConnectionsTest, FiveHundredWorkers)
{
    listener_ = RawListen(kServer, 600);
    std::vector<Fd> ends;
    std::set<uint32_t> workers;
    for (int i = 0; i < 500; ++i) {
        Connect();
        ends.push_back(std::move(daemon_));
        workers.insert(NumberOf(worker_));
        ends.push_back(std::move(worker_));
    }
    std::set<uint32_t> found;
    for (const Connection& connection : OnlyServer().connections) {
        EXPECT_EQ(connection.state, ConnectionState::kEstablished);
        EXPECT_EQ(PidsOf(connection.worker.processes), std::vector{getpid()});
        found.insert(connection.worker.socket);
    }
    EXPECT_EQ(found, workers);
}

TEST_F(ConnectionsTest, ReplacedDaemonKeepsItsWorkers)
{
    Connect();
    const Fd next = RawListen(kServer);
    auto servers = FindServerSockets().servers;
    ASSERT_EQ(servers.size(), 2U);
    EXPECT_EQ(servers[0].reach, Reach::kDirect);
    EXPECT_EQ(servers[0].socket, NumberOf(next));
    EXPECT_TRUE(servers[0].connections.empty());
    EXPECT_EQ(servers[1].reach, Reach::kNone);
    EXPECT_EQ(servers[1].socket, NumberOf(listener_));
    EXPECT_EQ(servers[1].connections.size(), 1U);
    listener_.Reset();
    servers = FindServerSockets().servers;
    ASSERT_EQ(servers.size(), 2U) << "it listens no longer";
    EXPECT_EQ(servers[1].socket, 0U);
    EXPECT_EQ(servers[1].connections.size(), 1U);
    EXPECT_EQ(PidsOf(servers[1].processes), std::vector{getpid()});
    daemon_.Reset();
    EXPECT_EQ(FindServerSockets().servers.size(), 1U);
}

TEST_F(ConnectionsTest, SocketDirectoryThatWasRemoved)
{
    Connect();
    std::filesystem::remove_all(kSocketDir);
    EXPECT_EQ(OnlyServer().reach, Reach::kNone);
    EXPECT_EQ(OnlyConnection().worker.socket, NumberOf(worker_));
}

TEST_F(ConnectionsTest, DaemonsOfOtherFilesAreNotOurs)
{
    const Waiting elsewhere([] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/home", "tmpfs", 0, nullptr), 0);
        ASSERT_EQ(mkdir("/home/KrovaUser", 0755), 0);
        static const Fd listener = RawListen(kServer);
        ASSERT_TRUE(listener.valid());
    });
    const Waiting sameDevice([] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        std::filesystem::create_directories("/home/other/KrovaUser");
        ASSERT_EQ(mount("/home/other", "/home", nullptr, MS_BIND, nullptr), 0);
        static const Fd listener = RawListen(kServer);
        ASSERT_TRUE(listener.valid());
    });
    EXPECT_EQ(OnlyServer().socket, NumberOf(listener_));
}

TEST_F(ConnectionsTest, WorkerInAnotherNetworkNamespace)
{
    Fd listener = std::move(listener_);
    const Waiting worker([&listener] {
        listener.Reset();
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        static const Fd connection = RawConnect(kServer);
        ASSERT_TRUE(connection.valid());
    });
    listener_ = std::move(listener);
    Connection connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kPending);
    EXPECT_EQ(PidsOf(connection.worker.processes), std::vector{worker.pid()});
    daemon_ = RawAccept(listener_, kLimit);
    ASSERT_TRUE(WriteAll(daemon_, Bytes(5)));
    connection = OnlyConnection();
    EXPECT_EQ(connection.state, ConnectionState::kEstablished);
    EXPECT_EQ(connection.daemon.socket, NumberOf(daemon_));
    EXPECT_EQ(PidsOf(connection.worker.processes), std::vector{worker.pid()});
    EXPECT_EQ(connection.worker.user, 0U);
    EXPECT_EQ(connection.worker.unread, 5U);
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    EXPECT_TRUE(FindServerSockets().complete);
    ChildProcess nobody([] {
        EXPECT_EQ(close_range(3, ~0U, 0), 0);
        EXPECT_EQ(setuid(65534), 0);
        EXPECT_TRUE(OnlyServer().connections.empty());
        EXPECT_FALSE(FindServerSockets().complete);
        return 0;
    });
    EXPECT_TRUE(nobody.WaitExit(kLimit).ExitedWith(0));
}

// As for an ordinary user's containers.
TEST_F(ConnectionsTest, NetworkNamespaceThatCanBeEnteredButNotLeft)
{
    ChildProcess rootOfItsOwn([this] {
        if (unshare(CLONE_NEWUSER) == -1) {
            return 77;
        }
        std::ofstream("/proc/self/uid_map") << "0 0 1";
        const Waiting worker([this] {
            listener_.Reset();
            ASSERT_EQ(unshare(CLONE_NEWNET), 0);
            static const Fd connection = RawConnect(kServer);
            ASSERT_TRUE(connection.valid());
        });
        EXPECT_EQ(PidsOf(OnlyConnection().worker.processes), std::vector{worker.pid()});
        return testing::Test::HasFailure() ? 1 : 0;
    });
    const auto status = rootOfItsOwn.WaitExit(kLimit);
    if (status.ExitedWith(77)) {
        GTEST_SKIP() << "user namespaces are not permitted";
    }
    EXPECT_TRUE(status.ExitedWith(0)) << status;
}

TEST_F(ConnectionsTest, DaemonInAnotherNetworkNamespace)
{
    listener_.Reset();
    const Waiting daemon([] {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        static const Fd listener = RawListen(kServer);
        ASSERT_TRUE(listener.valid());
    });
    worker_ = RawConnect(kServer);
    EXPECT_EQ(OnlyServer().reach, Reach::kDirect);
    EXPECT_EQ(PidsOf(OnlyServer().processes), std::vector{daemon.pid()});
    EXPECT_EQ(OnlyConnection().state, ConnectionState::kPending);
    EXPECT_EQ(OnlyConnection().worker.socket, NumberOf(worker_));
}

TEST_F(ConnectionsTest, ProcessesInAnotherPidNamespace)
{
    Fd listener = std::move(listener_);
    const Waiting worker([&listener] {
        listener.Reset();
        ASSERT_EQ(unshare(CLONE_NEWPID), 0);
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const Fd connection = RawConnect(kServer);
            pause();
            _exit(getpid());
        }
    });
    listener_ = std::move(listener);
    daemon_ = RawAccept(listener_, kLimit);
    const Connection connection = OnlyConnection();
    ASSERT_EQ(connection.worker.processes.size(), 1U);
    EXPECT_GT(connection.worker.processes[0].pid, 1) << "as it is called here";
    EXPECT_NE(connection.worker.processes[0].pid, worker.pid());
}

TEST_F(ConnectionsTest, UserWhoMayNotSeeTheProcesses)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    Connect();
    ASSERT_TRUE(WriteAll(worker_, Bytes(5)));
    ChildProcess nobody([] {
        EXPECT_EQ(close_range(3, ~0U, 0), 0);
        EXPECT_EQ(setuid(65534), 0);
        const Connection connection = OnlyConnection();
        EXPECT_EQ(connection.daemon.unread, 5U);
        EXPECT_EQ(connection.worker.user, 0U);
        EXPECT_TRUE(connection.worker.processes.empty());
        EXPECT_TRUE(connection.daemon.processes.empty());
        EXPECT_TRUE(OnlyServer().processes.empty());
        EXPECT_EQ(OnlyServer().reach, Reach::kDirect);
        return 0;
    });
    EXPECT_TRUE(nobody.WaitExit(kLimit).ExitedWith(0));
}

TEST_F(ConnectionsTest, UserWhoMayNotSeeTheSocket)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    Connect();
    ASSERT_EQ(chmod(kSocketDir, 0350), 0);
    ChildProcess nobody([] {
        EXPECT_EQ(close_range(3, ~0U, 0), 0);
        EXPECT_EQ(setgroups(0, nullptr), 0);
        EXPECT_EQ(setgid(65534), 0);
        EXPECT_EQ(setuid(65534), 0);
        EXPECT_EQ(OnlyServer().reach, Reach::kUnknown);
        EXPECT_EQ(OnlyServer().connections.size(), 1U);
        return 0;
    });
    EXPECT_TRUE(nobody.WaitExit(kLimit).ExitedWith(0));
}

TEST_F(ConnectionsTest, SystemWithoutProc)
{
    Connect();
    ChildProcess child([] {
        EXPECT_EQ(unshare(CLONE_NEWNS), 0);
        EXPECT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
        EXPECT_EQ(OnlyConnection().daemon.unread, 0U);
        EXPECT_TRUE(OnlyConnection().worker.processes.empty());
        return 0;
    });
    EXPECT_TRUE(child.WaitExit(kLimit).ExitedWith(0));
}

TEST_F(ConnectionsTest, NameOfAProcessMayBeAnything)
{
    for (const std::string name : {") S 1 (2) 3", "a b\nc", "\033[2J\x80\xff", "(((", ")", ""}) {
        listener_ = RawListen(kServer);
        const auto before = std::chrono::system_clock::now() - std::chrono::seconds(2);
        Fd listener = std::move(listener_);
        Waiting worker([&] {
            listener.Reset();
            prctl(PR_SET_NAME, name.c_str());
            static const Fd connection = RawConnect(kServer);
        });
        listener_ = std::move(listener);
        daemon_ = RawAccept(listener_, kLimit);
        const Connection connection = OnlyConnection();
        ASSERT_EQ(connection.worker.processes.size(), 1U);
        EXPECT_EQ(connection.worker.processes[0].program, name);
        ASSERT_TRUE(connection.worker.processes[0].started.has_value());
        EXPECT_GE(*connection.worker.processes[0].started, before);
        EXPECT_LE(*connection.worker.processes[0].started, std::chrono::system_clock::now());
        worker.End();
        daemon_.Reset();
    }
}

// One at a time: each connects, if there is room in the queue, and ends.
void StartAndEndProcesses()
{
    for (;;) {
        const pid_t child = fork();
        if (child == 0) {
            const tools::Fd connection = tools::TryConnect(tools::kSocketPath);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
    }
}

TEST_F(ConnectionsTest, ProcessesThatComeAndGoMeanwhile)
{
    const ChildProcess processes([] {
        StartAndEndProcesses();
        return 0;
    });
    size_t connections = 0;
    for (const Deadline deadline(kLimit); connections < 100 && !deadline.Passed();) {
        const ServerSocket server = OnlyServer();
        EXPECT_FALSE(server.processes.empty());
        connections += server.connections.size();
        for (size_t i = 0; i < server.connections.size(); ++i) {
            RawAccept(listener_, kLimit);
        }
    }
    EXPECT_GE(connections, 100U);
}

// The system call fails with this errno.
void Refuse(int call, int error)
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(call), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(ConnectionsTest, KernelThatDoesNotAnswerIsAnError)
{
    for (const int error : {EPERM, ENOSYS, EPROTONOSUPPORT}) {
        ChildProcess child([error] {
            Refuse(__NR_socket, error);
            try {
                FindServerSockets();
                ADD_FAILURE() << "no error";
            } catch (const tools::ExitError& failure) {
                EXPECT_EQ(failure.code(), tools::kExitFailed);
                EXPECT_EQ(failure.what(),
                          std::string("the kernel does not tell who is connected (unix_diag): ") + strerror(error));
            }
            return 0;
        });
        EXPECT_TRUE(child.WaitExit(kLimit).ExitedWith(0));
    }
}

}  // namespace
}  // namespace gaktest
