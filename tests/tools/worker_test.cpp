#include <csignal>
#include <set>

#include "tool.h"

namespace gaktest {
namespace {

// A daemon of the test, and workers that connect to it.
class WorkerTest : public testing::Test {
protected:
    Fd Start(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "worker");
        tool_ = std::make_unique<Tool>(kGakppctl, arguments);
        return RawAccept(listener_, kLimit);
    }

    RawMessage Expected(uint32_t type, uint32_t device, uint32_t process) const
    {
        RawMessage message = FromWorker(type, device, static_cast<uint32_t>(tool_->pid()));
        message.proc_type = process;
        return message;
    }

    static Bytes Order(uint32_t type, uint32_t device, uint32_t process = 1)
    {
        RawMessage message;
        message.type = type;
        message.src_id = kServer;
        message.dest_id = device;
        message.proc_type = process;
        return PpcFrame(message);
    }

    // Whether the worker has ended with this event, in JSON that fits the schema.
    testing::AssertionResult EndedWithEvent(const std::string& event) const
    {
        const std::string& out = tool_->out();
        const size_t last = out.rfind("{\"time\"");
        if (last == std::string::npos || out.find("\"event\":\"" + event + "\"", last) == std::string::npos) {
            return testing::AssertionFailure() << event << " is not the last event:\n" << out;
        }
        return FitsSchema(out, "worker");
    }

    Fd listener_ = RawListen(kServer);
    std::unique_ptr<Tool> tool_;
};

TEST_F(WorkerTest, ReportsItsStartAndEndsOnShutdown)
{
    const Fd worker = Start({"--device", "2", "--type", "ZOLT", "--heartbeat", "0"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(0, 2, 0));
    ASSERT_TRUE(WriteAll(worker, Order(5, 2, 0)));
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(1, 2, 0));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0)) << tool_->err();
    EXPECT_EQ(CountOf(tool_->out(), "\n"), 2u) << tool_->out();
    EXPECT_NE(tool_->out().find("device 2 ZOLT pid " + std::to_string(tool_->pid()) + " SHUTDOWN\n"),
              std::string::npos);
}

TEST_F(WorkerTest, SendsHeartbeats)
{
    const Fd worker = Start({"--heartbeat", "0.02"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(0, 0, 1));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(2, 0, 1));
    }
}

TEST_F(WorkerTest, AsksForTheCustomProcessWithItsLibraries)
{
    const Fd worker = Start({"--libs", "liba.so,libb.so", "--host-pid", "99", "--heartbeat", "0", "--json"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(0, 0, 1));
    const auto request = ReadPpcFrame(worker, kLimit);
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->type, 3u);
    EXPECT_EQ(request->host_pid, 99u);
    EXPECT_EQ(request->lib_names, (std::vector<std::string>{"liba.so", "libb.so"}));
    ASSERT_TRUE(WriteAll(worker, Order(0, 0, 2)));
    EXPECT_TRUE(tool_->WaitForOut("CUSTOM_READY"));
    EXPECT_TRUE(FitsSchema(tool_->out(), "worker"));
}

TEST_F(WorkerTest, ShutdownFitsTheSchema)
{
    const Fd worker = Start({"--json"});
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    ASSERT_TRUE(WriteAll(worker, Order(5, 0)));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0));
    EXPECT_TRUE(EndedWithEvent("SHUTDOWN"));
}

TEST_F(WorkerTest, CrashesWithoutNotice)
{
    const Fd worker = Start({"--crash-after", "0.05", "--heartbeat", "0", "--json"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(0, 0, 1));
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(tool_->Finish().KilledBy(SIGKILL));
    EXPECT_TRUE(EndedWithEvent("CRASH"));
}

TEST_F(WorkerTest, ReportsAnAbnormalEnd)
{
    const Fd worker = Start({"--abnormal-after", "0.05", "--heartbeat", "0", "--json"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(0, 0, 1));
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), Expected(4, 0, 1));
    EXPECT_TRUE(tool_->Finish().ExitedWith(1));
    EXPECT_TRUE(EndedWithEvent("ABNORMAL"));
}

TEST_F(WorkerTest, LeavesAtItsTimeLimit)
{
    const Fd worker = Start({"--timeout", "0.05", "--json"});
    EXPECT_TRUE(tool_->Finish().ExitedWith(124));
    EXPECT_TRUE(EndedWithEvent("TIME_LIMIT"));
}

TEST_F(WorkerTest, LostConnectionIsAFailure)
{
    Fd worker = Start({"--json"});
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    worker.Reset();
    EXPECT_TRUE(tool_->Finish().ExitedWith(1));
    EXPECT_TRUE(EndedWithEvent("LOST"));
}

TEST_F(WorkerTest, TimeOfTheUserEndsItWithSuccess)
{
    const Fd worker = Start({"--for", "0.1", "--heartbeat", "0", "--json"});
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0));
    EXPECT_TRUE(EndedWithEvent("LEFT"));
}

TEST_F(WorkerTest, TypeIsAcceptedInAnyCase)
{
    const Fd worker = Start({"--type", "Custom_compute", "--json"});
    EXPECT_EQ(ReadPpcFrame(worker, kLimit).value_or(RawMessage{}).proc_type, 2u);
    EXPECT_TRUE(tool_->WaitForOut("\"process_type\":\"CUSTOM_COMPUTE\""));
}

TEST_F(WorkerTest, CountStartsSoManyProcesses)
{
    std::vector<Fd> workers;
    workers.push_back(Start({"--count", "3", "--heartbeat", "0"}));
    workers.push_back(RawAccept(listener_, kLimit));
    workers.push_back(RawAccept(listener_, kLimit));
    std::set<uint32_t> pids;
    for (const Fd& worker : workers) {
        const auto start = ReadPpcFrame(worker, kLimit);
        ASSERT_TRUE(start.has_value());
        pids.insert(start->sub_proc_pid);
        ASSERT_TRUE(WriteAll(worker, Order(5, 0)));
    }
    EXPECT_EQ(pids.size(), 3u);
    EXPECT_TRUE(tool_->Finish().ExitedWith(0)) << tool_->err();
}

TEST(WorkerStandaloneTest, NoDaemonIsTold)
{
    const Outcome outcome = Ctl({"worker"});
    EXPECT_TRUE(outcome.status.ExitedWith(3));
    EXPECT_NE(outcome.err.find("gakppctl: no connection to a daemon (see gakppctl doctor)\n"), std::string::npos);
}

TEST(WorkerStandaloneTest, WrongArgumentsAreWrongUsage)
{
    EXPECT_TRUE(Ctl({"worker", "--device", "4"}).status.ExitedWith(2));
    EXPECT_TRUE(Ctl({"worker", "--type", "OTHER"}).status.ExitedWith(2));
    EXPECT_TRUE(Ctl({"worker", "--count", "0"}).status.ExitedWith(2));
    const Outcome libs = Ctl({"worker", "--type", "zolt", "--libs", "liba.so"});
    EXPECT_TRUE(libs.status.ExitedWith(2));
    EXPECT_NE(libs.err.find("only a COMPUTE worker can ask"), std::string::npos) << libs.err;
}

}  // namespace
}  // namespace gaktest
