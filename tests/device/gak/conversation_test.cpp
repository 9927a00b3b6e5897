// A daemon and its workers as real processes: separate programs, started with fork and exec, on the real socket.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "process.h"
#include "raw_peer.h"

namespace gaktest {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

constexpr auto kWait = std::chrono::seconds(20);

enum : uint32_t { kZolt = 0, kCompute = 1, kCustomCompute = 2 };
enum : uint32_t {
    kStartRsp = 0,
    kShutdownRsp = 1,
    kHeartbeat = 2,
    kNotifyVexoInfo = 3,
    kAbnormal = 4,
    kShutdown = 5,
    kSocketClose = 6
};

// A conversation_program that runs.
class Program {
public:
    explicit Program(const std::vector<std::string>& args)
    {
        std::array<int, 2> input{};
        std::array<int, 2> output{};
        if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        const Fd theirInput(input[0]);
        const Fd theirOutput(output[1]);
        input_.Reset(input[1]);
        output_.Reset(output[0]);
        errors_.Reset(memfd_create("errors", MFD_CLOEXEC));
        process_ = std::make_unique<ChildProcess>([&] {
            dup2(theirInput.get(), STDIN_FILENO);
            dup2(theirOutput.get(), STDOUT_FILENO);
            dup2(errors_.get(), STDERR_FILENO);
            std::vector<std::string> all{GAKPPC_CONVERSATION_PROGRAM};
            all.insert(all.end(), args.begin(), args.end());
            std::vector<char*> argv;
            for (std::string& arg : all) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            return 127;
        });
    }

    uint32_t pid() const { return static_cast<uint32_t>(process_->pid()); }
    ExitStatus WaitExit() { return process_->WaitExit(kWait); }
    void Kill(int signal) { process_->Kill(signal); }
    void EndInput() { input_.Reset(); }

    void Tell(const std::string& line) { EXPECT_TRUE(WriteAllToPipe(line + "\n")); }

    // The next line it says; empty when it says none in time.
    std::string Listen()
    {
        std::string line;
        const Deadline deadline(kWait);
        char byte = 0;
        while (WaitReadable(output_, deadline) && read(output_.get(), &byte, 1) == 1) {
            if (byte == '\n') {
                return line;
            }
            line += byte;
        }
        return "";
    }

    // Whether it says `line`, whatever it says before.
    bool Says(const std::string& line)
    {
        std::string said = Listen();
        while (!said.empty() && said != line) {
            said = Listen();
        }
        return said == line;
    }

    std::vector<std::string> Listen(size_t count)
    {
        std::vector<std::string> lines;
        while (lines.size() < count) {
            lines.push_back(Listen());
        }
        return lines;
    }

    std::string Ask(const std::string& line)
    {
        Tell(line);
        return Listen();
    }

    // What it wrote to standard error so far.
    std::string Errors() const
    {
        std::string text(static_cast<size_t>(lseek(errors_.get(), 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(errors_.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        return text;
    }

private:
    bool WriteAllToPipe(const std::string& text)
    {
        return write(input_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    Fd input_;
    Fd output_;
    Fd errors_;
    std::unique_ptr<ChildProcess> process_;
};

// A worker with its place.
struct Worker : Program {
    Worker(const std::string& role, uint32_t workerDevice, uint32_t workerType)
        : Program({role, std::to_string(workerDevice), std::to_string(workerType)}),
          device(workerDevice),
          type(workerType)
    {
    }

    const uint32_t device;
    const uint32_t type;
};

// What the daemon says when a message of the worker comes.
std::string Message(uint32_t type, const Worker& from, const std::string& rest = "0")
{
    return "message " + std::to_string(type) + ' ' + std::to_string(from.device) + " 19280 " +
           std::to_string(from.type) + ' ' + std::to_string(from.pid()) + ' ' + rest;
}

// Tells the daemon to send to the worker.
std::string SendTo(const Worker& worker, uint32_t type, uint32_t procType)
{
    return "send " + std::to_string(type) + ' ' + std::to_string(worker.device) + ' ' + std::to_string(procType) + ' ' +
           std::to_string(worker.pid());
}

class ConversationTest : public testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);  // of the pipes to programs that ended; exec passes it on
        StartDaemon();
    }

    void TearDown() override
    {
        daemon_->EndInput();
        const ExitStatus status = daemon_->WaitExit();
        EXPECT_TRUE(daemonWasKilled_ ? status.KilledBy(SIGKILL) : status.ExitedWith(0)) << status;
    }

    void StartDaemon()
    {
        daemon_ = std::make_unique<Program>(std::vector<std::string>{"daemon"});
        ASSERT_EQ(daemon_->Listen(), "created 1011000");
    }

    void KillDaemon()
    {
        daemon_->Kill(SIGKILL);
        ASSERT_TRUE(daemon_->WaitExit().KilledBy(SIGKILL));
        daemonWasKilled_ = true;
    }

    std::unique_ptr<Worker> Start(uint32_t device, uint32_t type)
    {
        auto worker = std::make_unique<Worker>("worker", device, type);
        EXPECT_EQ(daemon_->Listen(), Message(kStartRsp, *worker));
        return worker;
    }

    void Shutdown(Worker& worker)
    {
        daemon_->Tell(SendTo(worker, kShutdown, worker.type));
        EXPECT_THAT(daemon_->Listen(3),
                    UnorderedElementsAre("sent 1011000", Message(kShutdownRsp, worker), Message(kSocketClose, worker)));
        EXPECT_EQ(worker.Listen(), "waited 0");
        const ExitStatus status = worker.WaitExit();
        EXPECT_TRUE(status.ExitedWith(0)) << status;
    }

    std::unique_ptr<Program> daemon_;
    bool daemonWasKilled_ = false;
};

TEST_F(ConversationTest, TwelveWorkersStartAndShutDown)
{
    const std::string resources = daemon_->Ask("resources");
    std::vector<std::unique_ptr<Worker>> workers;
    for (uint32_t device = 0; device < 4; ++device) {
        for (const uint32_t type : {kZolt, kCompute, kCustomCompute}) {
            workers.push_back(Start(device, type));
        }
    }
    for (const auto& worker : workers) {
        Shutdown(*worker);
    }
    // All threads and descriptors of their sessions are given back.
    EXPECT_TRUE(WaitUntil([&] { return daemon_->Ask("resources") == resources; }, kWait));
}

TEST_F(ConversationTest, HeartbeatsAndAbnormalEndsArriveFromTheirSenders)
{
    const auto compute = Start(1, kCompute);
    const auto zolt = Start(2, kZolt);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(compute->Ask("heartbeat"), "heartbeat 0");
        EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, *compute));
        EXPECT_EQ(zolt->Ask("heartbeat"), "heartbeat 0");
        EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, *zolt));
    }
    EXPECT_EQ(compute->Ask("abnormal"), "abnormal 0");
    EXPECT_EQ(daemon_->Listen(), Message(kAbnormal, *compute));
    // Nothing is torn down by it.
    EXPECT_EQ(compute->Ask("heartbeat"), "heartbeat 0");
    EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, *compute));
    Shutdown(*compute);
    Shutdown(*zolt);
}

TEST_F(ConversationTest, CustomProcessIsStartedForAComputeProcess)
{
    const auto compute = Start(1, kCompute);
    compute->Tell("custom 4711 libone.so libtwo.so");
    const std::string place = "message 3 1 19280 2 " + std::to_string(compute->pid());  // CUSTOM_COMPUTE's
    EXPECT_EQ(daemon_->Listen(), place + " 4711 libone.so libtwo.so");

    const auto custom = Start(1, kCustomCompute);
    EXPECT_EQ(daemon_->Ask(SendTo(*compute, kStartRsp, kCustomCompute)), "sent 1011000");
    EXPECT_EQ(compute->Listen(), "custom 0");
    // The next call does not wait for the daemon.
    EXPECT_EQ(compute->Ask("custom 5"), "custom 0");
    EXPECT_EQ(daemon_->Listen(), place + " 5");
    Shutdown(*custom);
    Shutdown(*compute);
}

TEST_F(ConversationTest, KilledWorkerIsReportedAsSocketClose)
{
    const std::string resources = daemon_->Ask("resources");
    const auto killed = Start(3, kCustomCompute);
    const auto other = Start(3, kCompute);
    killed->Kill(SIGKILL);
    EXPECT_EQ(daemon_->Listen(), Message(kSocketClose, *killed));
    EXPECT_TRUE(killed->WaitExit().KilledBy(SIGKILL));
    // Its entry stays; a message to it goes nowhere.
    EXPECT_EQ(daemon_->Ask(SendTo(*killed, kShutdown, kCustomCompute)), "sent 1093037");
    Shutdown(*other);
    EXPECT_TRUE(WaitUntil([&] { return daemon_->Ask("resources") == resources; }, kWait));
}

TEST_F(ConversationTest, WorkerThatIsKilledInsideCustPidIsReported)
{
    const auto compute = Start(0, kCompute);
    compute->Tell("custom 9 libone.so");
    const std::string place = " 0 19280 2 " + std::to_string(compute->pid()) + " 9 libone.so";
    EXPECT_EQ(daemon_->Listen(), "message 3" + place);
    compute->Kill(SIGKILL);
    EXPECT_EQ(daemon_->Listen(), "message 6" + place);  // what its last message said of it
}

TEST_F(ConversationTest, WorkerInsideCustPidShutsDown)
{
    const auto compute = Start(0, kCompute);
    compute->Tell("custom 9");
    EXPECT_THAT(daemon_->Listen(), HasSubstr("message 3 "));
    Shutdown(*compute);  // exits while its other thread still waits
}

TEST_F(ConversationTest, ShutdownOfAnotherDeviceReachesNobody)
{
    const auto worker = Start(1, kCompute);
    EXPECT_EQ(daemon_->Ask("send 5 2 1 " + std::to_string(worker->pid())), "sent 1093036");
    EXPECT_EQ(worker->Ask("heartbeat"), "heartbeat 0");
    EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, *worker));
    Shutdown(*worker);
}

TEST_F(ConversationTest, StoppedWorkerGetsItsShutdownWhenItGoesOn)
{
    const auto worker = Start(1, kCompute);
    worker->Kill(SIGSTOP);
    EXPECT_EQ(daemon_->Ask(SendTo(*worker, kShutdown, kCompute)), "sent 1011000");
    worker->Kill(SIGCONT);
    EXPECT_EQ(daemon_->Listen(), Message(kShutdownRsp, *worker));
    EXPECT_TRUE(worker->WaitExit().ExitedWith(0));
    EXPECT_EQ(daemon_->Listen(), Message(kSocketClose, *worker));
}

TEST_F(ConversationTest, WorkersFailWhenTheDaemonIsKilled)
{
    const auto worker = Start(0, kZolt);
    Worker reporter("reporter", 2, kCompute);
    EXPECT_EQ(reporter.Ask("heartbeat"), "heartbeat 0");
    EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, reporter));
    KillDaemon();
    EXPECT_EQ(worker->Listen(), "waited 1093031");
    EXPECT_TRUE(worker->WaitExit().ExitedWith(1));
    // A worker that only sends lives on.
    EXPECT_EQ(reporter.Ask("heartbeat"), "heartbeat 1093031");
    EXPECT_EQ(reporter.Ask("abnormal"), "abnormal 1093031");
    reporter.EndInput();
    EXPECT_TRUE(reporter.WaitExit().ExitedWith(0));
}

TEST_F(ConversationTest, WorkersFailWhenThereIsNoDaemon)
{
    KillDaemon();
    Worker worker("worker", 0, kZolt);
    EXPECT_EQ(worker.Listen(), "waited 1093031");
    EXPECT_TRUE(worker.WaitExit().ExitedWith(1));
    EXPECT_THAT(worker.Errors(), HasSubstr("[GAKPPCCLI] GetPpcSession() drvPpcSessionConnect fail,"));
    EXPECT_THAT(worker.Errors(), HasSubstr("Msg: PPC connect is failed\n"));
    EXPECT_THAT(worker.Errors(), HasSubstr("GakWaitForShutdown execute failed,"));
}

TEST_F(ConversationTest, DaemonThatDestroysItsServerEndsItsWorkersAndMayStartAgain)
{
    const auto zolt = Start(0, kZolt);
    const auto compute = Start(1, kCompute);
    daemon_->Tell("destroy");
    EXPECT_TRUE(daemon_->Says("destroyed 1011000"));
    for (Worker* worker : {zolt.get(), compute.get()}) {
        EXPECT_EQ(worker->Listen(), "waited 1093031");
        EXPECT_TRUE(worker->WaitExit().ExitedWith(1));
    }
    EXPECT_EQ(daemon_->Ask("create"), "created 1011000");
    Shutdown(*Start(0, kZolt));
}

TEST_F(ConversationTest, DaemonThatExitsEndsItsWorkers)
{
    const auto worker = Start(2, kZolt);
    daemon_->EndInput();
    EXPECT_TRUE(daemon_->WaitExit().ExitedWith(0));
    EXPECT_EQ(worker->Listen(), "waited 1093031");
    EXPECT_TRUE(worker->WaitExit().ExitedWith(1));
}

TEST_F(ConversationTest, TwoReportersOfOneDeviceAreToldApartByTheirPids)
{
    Worker first("reporter", 0, kCompute);
    Worker second("reporter", 0, kCompute);
    for (Worker* reporter : {&first, &second}) {
        EXPECT_EQ(reporter->Ask("heartbeat"), "heartbeat 0");
        EXPECT_EQ(daemon_->Listen(), Message(kHeartbeat, *reporter));
    }
    first.Kill(SIGKILL);
    EXPECT_EQ(daemon_->Listen(), Message(kSocketClose, first));
    EXPECT_EQ(daemon_->Ask(SendTo(second, kHeartbeat, kCompute)), "sent 1011000");
}

// Events are written whatever the level is.
TEST_F(ConversationTest, EventLinesTellOfShutdownAndOfClosedSockets)
{
    const auto worker = Start(1, kCompute);
    Shutdown(*worker);
    EXPECT_THAT(worker->Errors(),
                HasSubstr("[PPCCLIEVENT] #### PPCClient->GAK Close Rsp send OK device[1] procType:1 ####"
                          ",[qel/device/src/gak/ppc_client:"));
    daemon_->EndInput();
    EXPECT_TRUE(daemon_->WaitExit().ExitedWith(0));
    for (const char* line : {"[GAKPPCSER] 0 SOCKET_CLOSED notify device index in os[1] procType[1] "
                             "ret=[17379391]?[17379391]GAK to clean,[qel/device/src/gak/ppc_server.cpp:",
                             "[GAKPPCSER] 1 SOCKET_CLOSED notify device index in os[1] procType[1] ret[17379391] GAK "
                             "to clean,[qel/device/src/gak/ppc_server.cpp:",
                             "[GAKPPCSER] 2 SOCKET_CLOSED notify device index in os[1] procType[1] ret[17379391] GAK "
                             "to clean,[qel/device/src/gak/ppc_server.cpp:",
                             "[GAKPPCSER] [threadName:ppc_srv_recv_0] RecvData [ret=17379391] [tid="}) {
        EXPECT_THAT(daemon_->Errors(), HasSubstr(line));
    }
}

}  // namespace
}  // namespace gaktest
