// The programs of the guides: with each other, and each with a raw peer at the other end.

#include <sys/types.h>

#include <csignal>
#include <memory>

#include "../tools/tool.h"

namespace gaktest {
namespace {

constexpr char kDaemon[] = GAKPPC_DAEMON_PROGRAM;
constexpr char kWorker[] = GAKPPC_WORKER_PROGRAM;

enum MessageType : uint32_t { kStartRsp, kShutdownRsp, kHeartbeat, kNotifyVexoInfo, kAbnormal, kShutdown };
enum ProcessType : uint32_t { kZolt, kCompute, kCustomCompute };

// The pid in the first line that says this of a compute or custom process.
pid_t PidOf(const std::string& output, const std::string& device, const std::string& type)
{
    const std::string before = "device " + device + " " + type + " pid ";
    const size_t at = output.find(before);
    return at == std::string::npos ? -1 : std::stoi(output.substr(at + before.size()));
}

// The worker with a raw daemon.
class GuideWorkerTest : public testing::Test {
protected:
    void Start(const std::vector<std::string>& arguments)
    {
        listener_ = RawListen(kServer);
        ASSERT_TRUE(listener_.valid());
        worker_ = std::make_unique<Tool>(kWorker, arguments);
        session_ = RawAccept(listener_, kLimit);
        ASSERT_TRUE(session_.valid());
    }

    // The next message of this type; heartbeats may come before it.
    RawMessage Receive(MessageType type)
    {
        for (;;) {
            const std::optional<RawMessage> message = ReadPpcFrame(session_, kLimit);
            if (!message.has_value() || message->type == type) {
                EXPECT_TRUE(message.has_value());
                return message.value_or(RawMessage{});
            }
            EXPECT_EQ(message->type, kHeartbeat);
        }
    }

    void Order(MessageType type, uint32_t device, uint32_t processType)
    {
        RawMessage message;
        message.type = type;
        message.src_id = kServer;
        message.dest_id = device;
        message.proc_type = processType;
        message.sub_proc_pid = static_cast<uint32_t>(worker_->pid());
        ASSERT_TRUE(WriteAll(session_, PpcFrame(message)));
    }

    Fd listener_;
    Fd session_;
    std::unique_ptr<Tool> worker_;
};

TEST_F(GuideWorkerTest, ReportsItsStartSendsHeartbeatsAndEndsWhenItIsToldTo)
{
    Start({"3", "ZOLT"});
    const RawMessage start = Receive(kStartRsp);
    EXPECT_EQ(start.src_id, 3u);
    EXPECT_EQ(start.proc_type, kZolt);
    EXPECT_EQ(start.sub_proc_pid, static_cast<uint32_t>(worker_->pid()));
    EXPECT_EQ(Receive(kHeartbeat).src_id, 3u);
    Order(kShutdown, 3, kZolt);
    EXPECT_EQ(Receive(kShutdownRsp).src_id, 3u);
    EXPECT_TRUE(worker_->Finish().ExitedWith(0));
    EXPECT_TRUE(CountOf(worker_->out(), "shut down") == 1) << worker_->out();
}

TEST_F(GuideWorkerTest, AsksForTheCustomProcessAndWaitsForIt)
{
    Start({"1", "COMPUTE", "liba.so", "libb.so"});
    Receive(kStartRsp);
    const RawMessage request = Receive(kNotifyVexoInfo);
    EXPECT_EQ(request.lib_names, (std::vector<std::string>{"liba.so", "libb.so"}));
    EXPECT_EQ(request.host_pid, static_cast<uint32_t>(getpid()));
    Receive(kHeartbeat);
    Receive(kHeartbeat);  // and no second request between the two
    EXPECT_EQ(worker_->out(), "") << "nobody has answered yet";
    Order(kStartRsp, 1, kCustomCompute);
    EXPECT_TRUE(worker_->WaitForOut("custom process ready"));
}

TEST_F(GuideWorkerTest, LeavesWithStatus1WhenTheDaemonDies)
{
    Start({"0", "COMPUTE"});
    Receive(kStartRsp);
    session_.Reset();
    EXPECT_TRUE(worker_->Finish().ExitedWith(1));
    EXPECT_EQ(CountOf(worker_->out(), "lost the daemon"), 1u) << worker_->out();
}

TEST_F(GuideWorkerTest, SigtermIsReportedAsAnAbnormalEnd)
{
    Start({"0", "COMPUTE"});
    Receive(kStartRsp);
    worker_->Kill(SIGTERM);
    EXPECT_EQ(Receive(kAbnormal).sub_proc_pid, static_cast<uint32_t>(worker_->pid()));
    EXPECT_TRUE(worker_->Finish().ExitedWith(3));
}

TEST(GuideWorker, LeavesWithStatus1WithoutADaemon)
{
    EXPECT_TRUE(RunTool(kWorker, {"0", "COMPUTE"}).status.ExitedWith(1));
}

TEST(GuideWorker, WrongArgumentsAreWrongUsage)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"0"}, {"4", "ZOLT"}, {"00", "ZOLT"}, {"0", "NONE"}}) {
        EXPECT_TRUE(RunTool(kWorker, arguments).status.ExitedWith(2));
    }
}

TEST(GuideDaemon, TalksToTheWorkersThatItStartsAndStopsThem)
{
    Tool daemon(kDaemon, {kWorker, "0", "2"});
    for (const std::string device : {"0", "2"}) {
        EXPECT_TRUE(daemon.WaitForOut("daemon: device " + device + " COMPUTE"));
        EXPECT_TRUE(daemon.WaitForOut("worker: device " + device + " COMPUTE pid " +
                                      std::to_string(PidOf(daemon.out(), device, "COMPUTE")) +
                                      " custom process ready"));
        EXPECT_GT(PidOf(daemon.out(), device, "CUSTOM_COMPUTE"), 0) << daemon.out();
    }
    daemon.Kill(SIGTERM);
    EXPECT_TRUE(daemon.Finish().ExitedWith(0)) << daemon.err();
    EXPECT_EQ(CountOf(daemon.out(), " START_RSP\n"), 4u) << daemon.out();
    EXPECT_EQ(CountOf(daemon.out(), " SHUTDOWN_RSP\n"), 4u) << daemon.out();
    EXPECT_EQ(CountOf(daemon.out(), "has ended, status 0\n"), 4u) << daemon.out();
}

TEST(GuideDaemon, NoticesAKilledWorkerAndKeepsTheOthers)
{
    Tool daemon(kDaemon, {kWorker, "0", "1"});
    EXPECT_TRUE(daemon.WaitForOut("daemon: device 0 COMPUTE"));
    EXPECT_TRUE(daemon.WaitForOut("daemon: device 1 COMPUTE"));
    const pid_t victim = PidOf(daemon.out(), "1", "COMPUTE");
    ASSERT_GT(victim, 0);
    kill(victim, SIGKILL);
    EXPECT_TRUE(daemon.WaitForOut("pid " + std::to_string(victim) + " SOCKET_CLOSE\n"));
    EXPECT_TRUE(daemon.WaitForOut("pid " + std::to_string(victim) + " has ended, signal 9\n"));
    const std::string heartbeat =
        "device 0 COMPUTE pid " + std::to_string(PidOf(daemon.out(), "0", "COMPUTE")) + " HEARTBEAT\n";
    EXPECT_TRUE(daemon.WaitForOut(heartbeat));
    daemon.Kill(SIGINT);
    EXPECT_TRUE(daemon.Finish().ExitedWith(0)) << daemon.out();
}

TEST(GuideDaemon, SecondRequestFindsTheCustomProcess)
{
    Tool daemon(kDaemon, {kWorker, "0"});
    EXPECT_TRUE(daemon.WaitForOut("custom process ready"));
    // As the same worker would; the answer goes to whoever spoke last for it.
    const Fd asker = RawConnect(kServer);
    RawMessage request = FromWorker(kNotifyVexoInfo, 0, static_cast<uint32_t>(PidOf(daemon.out(), "0", "COMPUTE")));
    request.proc_type = kCustomCompute;
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    const std::optional<RawMessage> answer = ReadPpcFrame(asker, kLimit);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->type, kStartRsp);
    EXPECT_EQ(answer->proc_type, kCustomCompute);
    request.type = kAbnormal;
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    EXPECT_TRUE(daemon.WaitForOut("ABNORMAL"));
    EXPECT_EQ(CountOf(daemon.out(), " START_RSP\n"), 2u) << "one compute and one custom process:\n" << daemon.out();
}

TEST(GuideDaemon, StopsInOrderWhileACustomProcessStarts)
{
    Tool daemon(kDaemon, {kWorker, "0", "1", "2", "3"});
    EXPECT_TRUE(daemon.WaitForOut("NOTIFY_VEXOINFO"));
    daemon.Kill(SIGTERM);
    EXPECT_TRUE(daemon.Finish().ExitedWith(0)) << daemon.out();
}

TEST(GuideDaemon, WorkerThatHangsIsKilledWhenItsTimeIsOver)
{
    Tool daemon(kDaemon, {kWorker, "0"});
    EXPECT_TRUE(daemon.WaitForOut("custom process ready"));
    kill(PidOf(daemon.out(), "0", "COMPUTE"), SIGSTOP);
    daemon.Kill(SIGTERM);
    EXPECT_TRUE(daemon.Finish().ExitedWith(1)) << daemon.out();
    EXPECT_EQ(CountOf(daemon.out(), "has ended, signal 9\n"), 1u) << daemon.out();
}

TEST(GuideDaemon, WrongArgumentsAreWrongUsage)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {kWorker}, {kWorker, "4"}, {kWorker, "0", "x"}}) {
        EXPECT_TRUE(RunTool(kDaemon, arguments).status.ExitedWith(2));
    }
}

}  // namespace
}  // namespace gaktest
