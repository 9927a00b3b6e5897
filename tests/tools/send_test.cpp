#include <unistd.h>

#include <csignal>

#include "tool.h"

namespace gaktest {
namespace {

std::vector<std::string> Send(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "send");
    return arguments;
}

// A daemon of the test, and the tool that talks to it.
class SendTest : public testing::Test {
protected:
    Fd Start(const std::vector<std::string>& arguments)
    {
        tool_ = std::make_unique<Tool>(kGakppctl, Send(arguments));
        return RawAccept(listener_, kLimit);
    }

    // The bytes that the tool sends before it leaves.
    Bytes SentBy(const std::vector<std::string>& arguments, size_t count)
    {
        const Fd worker = Start(arguments);
        return ReadExactly(worker, count + 1, kLimit);
    }

    Fd listener_ = RawListen(kServer);
    std::unique_ptr<Tool> tool_;
};

TEST_F(SendTest, MessageHasItsOptionsInIt)
{
    RawMessage message;
    message.type = 3;
    message.src_id = 2;
    message.dest_id = kServer;
    message.proc_type = 2;
    message.sub_proc_pid = 4711;
    message.host_pid = 99;
    message.lib_names = {{"liba.so", "libb.so"}};
    const Bytes frame = PpcFrame(message);
    EXPECT_EQ(Hex(SentBy({"NOTIFY_VEXOINFO", "--device", "2", "--type", "CUSTOM_COMPUTE", "--pid", "4711", "--host-pid",
                          "99", "--libs", "liba.so,libb.so"},
                         frame.size())),
              Hex(frame));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0)) << tool_->err();
    EXPECT_NE(tool_->out().find("NOTIFY_VEXOINFO"), std::string::npos) << tool_->out();
}

TEST_F(SendTest, WithoutOptionsItIsAComputeWorkerOfDeviceZero)
{
    const Fd worker = Start({"HEARTBEAT"});
    const RawMessage expected = FromWorker(2, 0, static_cast<uint32_t>(tool_->pid()));
    EXPECT_EQ(ReadPpcFrame(worker, kLimit), expected);
}

TEST_F(SendTest, NumbersOutsideTheSchemaAreSent)
{
    RawMessage message = FromWorker(77, 9, 1);
    message.proc_type = 12;
    const Bytes frame = PpcFrame(message);
    EXPECT_EQ(Hex(SentBy({"77", "--device", "9", "--type", "12", "--pid", "1"}, frame.size())), Hex(frame));
}

TEST_F(SendTest, NamesAreAcceptedInAnyCase)
{
    RawMessage message = FromWorker(2, 0, 1);
    message.proc_type = 0;
    const Bytes frame = PpcFrame(message);
    EXPECT_EQ(Hex(SentBy({"heartbeat", "--type", "Zolt", "--pid", "1"}, frame.size())), Hex(frame));
    RawMessage abnormal;
    abnormal.type = 4;
    EXPECT_EQ(Hex(SentBy({"--message", "{\"type\":\"abnormal\"}"}, PpcFrame(abnormal).size())),
              Hex(PpcFrame(abnormal)));
    const Fd worker = Start({"START_RSP", "--expect", "shutdown"});
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(5))));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0)) << tool_->err();
}

TEST_F(SendTest, MessageInJsonIsSent)
{
    RawMessage message;
    message.type = 4;
    message.src_id = 1;
    const Bytes frame = PpcFrame(message);
    EXPECT_EQ(Hex(SentBy({"--message", "{\"type\":\"ABNORMAL\",\"src_id\":1}"}, frame.size())), Hex(frame));
}

TEST_F(SendTest, RawBytesGetNoFrame)
{
    EXPECT_EQ(Hex(SentBy({"--raw", "0000 0A"}, 3)), "00 00 0A");
    EXPECT_TRUE(tool_->Finish().ExitedWith(0));
    EXPECT_NE(tool_->out().find("MALFORMED (length field of 3 byte(s))"), std::string::npos) << tool_->out();
}

TEST_F(SendTest, PayloadGetsAFrame)
{
    EXPECT_EQ(Hex(SentBy({"--payload", "010203"}, 7)), "00 00 00 03 01 02 03");
}

TEST_F(SendTest, CountAndIntervalRepeat)
{
    const auto begin = std::chrono::steady_clock::now();
    const Bytes frame = PpcFrame(FromWorker(2, 0, 5));
    EXPECT_EQ(SentBy({"HEARTBEAT", "--pid", "5", "--count", "3", "--interval", "0.1"}, 3 * frame.size()).size(),
              3 * frame.size());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
}

TEST_F(SendTest, WaitShowsWhatComes)
{
    const Fd worker = Start({"HEARTBEAT", "--wait", std::to_string(20 * TimeScale()), "--json", "--hex"});
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(5))));
    EXPECT_TRUE(tool_->WaitForOut("\"direction\":\"to_worker\""));
    EXPECT_TRUE(tool_->WaitForOut("\"type\":\"SHUTDOWN\""));
    EXPECT_TRUE(FitsSchema(tool_->out(), "record"));
}

TEST_F(SendTest, ExpectedMessageEndsTheWait)
{
    const Fd worker = Start({"START_RSP", "--expect", "SHUTDOWN"});
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0))));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(5))));
    EXPECT_TRUE(tool_->Finish().ExitedWith(0)) << tool_->err();
}

TEST_F(SendTest, MissingExpectedMessageIsATimeLimit)
{
    const Fd worker = Start({"START_RSP", "--expect", "SHUTDOWN", "--timeout", "0.1"});
    EXPECT_TRUE(tool_->Finish().ExitedWith(124)) << tool_->err();
}

TEST_F(SendTest, DaemonThatClosesBeforeTheExpectedMessageIsAFailure)
{
    Fd worker = Start({"START_RSP", "--expect", "SHUTDOWN"});
    worker.Reset();
    EXPECT_TRUE(tool_->Finish().ExitedWith(1)) << tool_->err();
}

TEST_F(SendTest, SignalWhileItWaitsRemovesItsSocket)
{
    listener_.Reset();
    unlink("/home/KrovaUser/qel_ppc/sock_server_19280");
    for (const int number : {SIGINT, SIGTERM}) {
        Tool tool(kGakppctl, Send({"SHUTDOWN", "--to-worker", "--timeout", std::to_string(60 * TimeScale())}));
        ASSERT_TRUE(WaitUntil([] { return access("/home/KrovaUser/qel_ppc/sock_server_19280", F_OK) == 0; }, kLimit));
        tool.Kill(number);
        EXPECT_TRUE(tool.Finish().ExitedWith(128 + number));
        EXPECT_EQ(access("/home/KrovaUser/qel_ppc/sock_server_19280", F_OK), -1);
    }
}

TEST_F(SendTest, RefusesToReplaceADaemonToReachAWorker)
{
    const Outcome outcome = Ctl({"send", "SHUTDOWN", "--to-worker"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_NE(outcome.err.find("a daemon runs"), std::string::npos) << outcome.err;
}

TEST(SendStandaloneTest, NoDaemonIsTold)
{
    EXPECT_TRUE(Ctl({"send", "HEARTBEAT"}).status.ExitedWith(3));
    RawListen(kServer);  // leaves a stale socket
    EXPECT_TRUE(Ctl({"send", "HEARTBEAT"}).status.ExitedWith(3));
}

TEST(SendStandaloneTest, WorkerIsReachedInTheDaemonsStead)
{
    Tool tool(kGakppctl, Send({"SHUTDOWN", "--to-worker", "--device", "2", "--expect", "SHUTDOWN_RSP", "--timeout",
                               std::to_string(20 * TimeScale())}));
    Fd worker;
    ASSERT_TRUE(WaitUntil(
        [&worker] {
            worker = RawConnect(kServer);
            return worker.valid();
        },
        kLimit));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 2))));
    const auto order = ReadPpcFrame(worker, kLimit);
    ASSERT_TRUE(order.has_value());
    EXPECT_EQ(order->type, 5u);
    EXPECT_EQ(order->src_id, static_cast<uint32_t>(kServer));
    EXPECT_EQ(order->dest_id, 2u);
    EXPECT_EQ(order->sub_proc_pid, static_cast<uint32_t>(getpid()));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(1, 2))));
    EXPECT_TRUE(tool.Finish().ExitedWith(0)) << tool.err();
    EXPECT_NE(tool.out().find("START_RSP"), std::string::npos) << tool.out();
    EXPECT_EQ(access(SocketPath(kServer).c_str(), F_OK), -1) << "the stand-in left its socket";
}

TEST(SendStandaloneTest, WorkerThatDoesNotComeIsATimeLimit)
{
    EXPECT_TRUE(Ctl({"send", "SHUTDOWN", "--to-worker", "--timeout", "0.1"}).status.ExitedWith(124));
}

TEST(SendStandaloneTest, WrongArgumentsAreWrongUsage)
{
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"NO_SUCH_TYPE"},
                                               {"HEARTBEAT", "--type", "NONE"},
                                               {"HEARTBEAT", "--raw", "00"},
                                               {"--raw", "0"},
                                               {"--raw", "zz"},
                                               {"--message", "{\"nothing\":1}"},
                                               {"HEARTBEAT", "--expect", "NONE"},
                                               {"HEARTBEAT", "--count", "0"},
                                               {"HEARTBEAT", "--wait", "-1"}}) {
        const Outcome outcome = Ctl(Send(arguments));
        EXPECT_TRUE(outcome.status.ExitedWith(2)) << testing::PrintToString(arguments) << outcome.status;
        EXPECT_EQ(outcome.out, "");
        EXPECT_NE(outcome.err, "");
    }
}

}  // namespace
}  // namespace gaktest
