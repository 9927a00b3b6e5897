#include <unistd.h>

#include <csignal>

#include "tool.h"

namespace gaktest {
namespace {

std::unique_ptr<Tool> StartDaemon(std::vector<std::string> arguments = {}, Tool::Output output = Tool::Output::kPipe,
                                  const std::vector<std::string>& environment = {})
{
    auto daemon = std::make_unique<Tool>(kGakppcd, arguments, output, environment);
    EXPECT_TRUE(daemon->WaitForOut("SERVING"));
    return daemon;
}

// The pid behind the first "pid " (or "pid":) after `text`.
std::string PidAfter(const std::string& output, const std::string& text)
{
    const size_t at = output.find("\"pid\":", output.find(text)) + 6;
    return output.substr(at, output.find(',', at) - at);
}

RawMessage ReadOrder(const Fd& worker)
{
    return ReadPpcFrame(worker, kLimit).value_or(RawMessage{});
}

TEST(Gakppcd, LinesTellWhatHappens)
{
    const auto daemon = StartDaemon();
    Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 1))));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2, 1))));
    EXPECT_TRUE(daemon->WaitForOut("device 1 COMPUTE pid 4711 STARTED heartbeats 0 age - START_RSP\n"));
    EXPECT_TRUE(daemon->WaitForOut("device 1 COMPUTE pid 4711 RUNNING heartbeats 1 age "));
    EXPECT_EQ(CountOf(daemon->out(), "heartbeats 1 age -"), 0U);
    worker.Reset();
    EXPECT_TRUE(daemon->WaitForOut("pid 4711 LOST"));
    daemon->Kill(SIGTERM);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0)) << daemon->err();
    EXPECT_EQ(daemon->out().find('\033'), std::string::npos);
}

TEST(Gakppcd, JsonFitsItsSchema)
{
    const auto daemon = StartDaemon({"--json", "--auto-custom"});
    Fd worker = RawConnect(kServer);
    for (const uint32_t type : {0, 2, 3, 4}) {
        ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(type))));
    }
    EXPECT_TRUE(daemon->WaitForOut("ABNORMAL"));
    RawMessage unknown = FromWorker(2);
    unknown.proc_type = 0xFFFFFFFF;  // the server refuses positive numbers only
    ASSERT_TRUE(WriteAll(worker, PpcFrame(unknown)));
    EXPECT_TRUE(daemon->WaitForOut("\"process_type\":\"-1\""));
    EXPECT_TRUE(daemon->WaitForOut("SENT_START_RSP"));
    worker.Reset();
    RawConnect(kServer).Reset();
    EXPECT_TRUE(daemon->WaitForOut("brought no message"));
    daemon->Kill(SIGINT);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0)) << daemon->out() << daemon->err();
    EXPECT_TRUE(FitsSchema(daemon->out(), "daemon"));
}

TEST(Gakppcd, ControlCharactersOfAWorkerAreEscaped)
{
    const auto daemon = StartDaemon();
    const Fd worker = RawConnect(kServer);
    RawMessage message = FromWorker(3);
    message.lib_names = {{"\x1b[31mlib.so\x07"}};
    ASSERT_TRUE(WriteAll(worker, PpcFrame(message)));
    EXPECT_TRUE(daemon->WaitForOut(R"(libraries: \x1b[31mlib.so\x07)"));
    daemon->Write("\x1b[31m\n");
    EXPECT_TRUE(daemon->WaitForErr(R"(unknown command "\x1b[31m")"));
    EXPECT_EQ(daemon->out().find('\x1b'), std::string::npos);
    EXPECT_EQ(daemon->err().find('\x1b'), std::string::npos);
}

TEST(Gakppcd, OrderShutsOneWorkerDown)
{
    const auto daemon = StartDaemon();
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 2))));
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    daemon->Write("shutdown 2 4711\n");
    const RawMessage order = ReadOrder(worker);
    EXPECT_EQ(order.type, 5u);
    EXPECT_EQ(order.src_id, static_cast<uint32_t>(kServer));
    EXPECT_EQ(order.dest_id, 2u);
    EXPECT_EQ(order.proc_type, 1u);
    EXPECT_EQ(order.sub_proc_pid, 4711u);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(1, 2))));
    EXPECT_TRUE(daemon->WaitForOut("STOPPED"));
}

TEST(Gakppcd, OrderShutsAllWorkersDown)
{
    const auto daemon = StartDaemon();
    const Fd first = RawConnect(kServer);
    const Fd second = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(first, PpcFrame(FromWorker(0, 0, 100))));
    ASSERT_TRUE(WriteAll(second, PpcFrame(FromWorker(0, 3, 200))));
    ASSERT_TRUE(daemon->WaitForOut("pid 100 STARTED"));
    ASSERT_TRUE(daemon->WaitForOut("pid 200 STARTED"));
    daemon->Write("shutdown all\n");
    EXPECT_EQ(ReadOrder(first).sub_proc_pid, 100u);
    EXPECT_EQ(ReadOrder(second).sub_proc_pid, 200u);
}

TEST(Gakppcd, WrongOrdersAreExplained)
{
    const auto daemon = StartDaemon();
    daemon->Write("dance\n\nshutdown\nshutdown 0\nshutdown 0 77\nstart-custom 0 78\n");
    EXPECT_TRUE(daemon->WaitForErr("unknown command \"dance\"\n  shutdown DEVICE PID "));
    EXPECT_TRUE(daemon->WaitForErr("a device and a process id are needed, not \"shutdown\"\n  shutdown DEVICE PID "));
    EXPECT_TRUE(daemon->WaitForErr("a device and a process id are needed, not \"shutdown 0\"\n"));
    EXPECT_TRUE(daemon->WaitForErr("no worker with device 0 and pid 77"));
    EXPECT_TRUE(daemon->WaitForErr("no worker with device 0 and pid 78"));
    daemon->Write("help\n");
    EXPECT_TRUE(daemon->WaitForErr("gakppcd: commands:\n  shutdown DEVICE PID "));
}

TEST(Gakppcd, QuitEndsItAlsoWithoutANewline)
{
    const auto daemon = StartDaemon();
    daemon->Write("quit");
    EXPECT_TRUE(daemon->Finish().ExitedWith(0)) << daemon->err();
    EXPECT_NE(daemon->out().find("ENDED (in order)"), std::string::npos);
}

TEST(Gakppcd, EndOfInputDoesNotEndIt)
{
    const auto daemon = StartDaemon();
    daemon->CloseInput();
    Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0))));
    EXPECT_TRUE(daemon->WaitForOut("STARTED"));
    worker.Reset();
    daemon->Kill(SIGHUP);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
}

TEST(Gakppcd, SpawnsWorkersAndShutsThemDown)
{
    const auto daemon = StartDaemon({"--json", "--spawn", "0:COMPUTE:2", "--spawn", "3:ZOLT"});
    EXPECT_TRUE(daemon->WaitForOut("\"START_RSP\",\"device\":3,\"process_type\":\"ZOLT\""));
    daemon->Kill(SIGTERM);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0)) << daemon->out() << daemon->err();
    EXPECT_EQ(CountOf(daemon->out(), "\"event\":\"SPAWNED\""), 3u);
    EXPECT_EQ(CountOf(daemon->out(), "\"event\":\"SHUTDOWN_RSP\""), 3u) << daemon->out();
    EXPECT_EQ(CountOf(daemon->out(), "\"detail\":\"exit 0\""), 3u) << daemon->out();
    EXPECT_TRUE(FitsSchema(daemon->out(), "daemon"));
}

TEST(Gakppcd, TypeOfASpawnedWorkerIsAcceptedInAnyCase)
{
    const auto daemon = StartDaemon({"--json", "--spawn", "0:Compute"});
    EXPECT_TRUE(daemon->WaitForOut("\"START_RSP\",\"device\":0,\"process_type\":\"COMPUTE\""));
}

TEST(Gakppcd, NoticesTheDeathOfASpawnedWorker)
{
    const auto daemon = StartDaemon({"--json", "--spawn", "0:COMPUTE"});
    ASSERT_TRUE(daemon->WaitForOut("START_RSP"));
    kill(std::stoi(PidAfter(daemon->out(), "SPAWNED")), SIGKILL);
    EXPECT_TRUE(
        daemon->WaitForOut("\"state\":\"DIED\",\"heartbeats\":0,\"heartbeat_age\":null,\"detail\":\"signal 9\""));
    EXPECT_TRUE(daemon->WaitForOut("SOCKET_CLOSE"));
}

TEST(Gakppcd, WorkerThatDoesNotStartIsNoticed)
{
    const auto daemon = StartDaemon({"--spawn", "0:COMPUTE", "--worker-program", "/bin/false"});
    EXPECT_TRUE(daemon->WaitForOut("EXIT (exit 1)"));
    const auto missing =
        RunTool(kGakppcd, {"--replace", "--spawn", "0:ZOLT", "--worker-program", "/nowhere", "--for", "0.1"});
    EXPECT_TRUE(missing.status.ExitedWith(1)) << missing.status;
    EXPECT_NE(missing.err.find("/nowhere: No such file"), std::string::npos);
}

TEST(Gakppcd, WorkerThatIgnoresTheOrderIsKilledWhenTheGraceIsOver)
{
    const auto daemon = StartDaemon({"--json", "--spawn", "0:COMPUTE", "--grace", "0.2"});
    ASSERT_TRUE(daemon->WaitForOut("START_RSP"));
    const pid_t worker = std::stoi(PidAfter(daemon->out(), "SPAWNED"));
    kill(worker, SIGSTOP);
    daemon->Kill(SIGTERM);
    EXPECT_TRUE(daemon->Finish().ExitedWith(1)) << daemon->out();
    EXPECT_NE(daemon->out().find("signal 9"), std::string::npos);
    EXPECT_EQ(kill(worker, 0), -1) << "the worker still runs";
}

TEST(Gakppcd, SecondSignalCutsTheGraceShort)
{
    const auto daemon = StartDaemon({"--grace", "600"});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0))));
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    daemon->Kill(SIGINT);
    ASSERT_TRUE(daemon->WaitForOut("STOPPING"));
    daemon->Kill(SIGINT);
    EXPECT_TRUE(daemon->Finish().ExitedWith(1)) << "the worker has not left in order";
    EXPECT_EQ(ReadOrder(worker).type, 5u);
    EXPECT_TRUE(ExpectEof(worker, kLimit));
}

TEST(Gakppcd, ForeignWorkerThatIgnoresTheOrderIsCut)
{
    const auto daemon = StartDaemon({"--grace", "0.1"});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0))));
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    daemon->Kill(SIGINT);
    EXPECT_EQ(ReadOrder(worker).type, 5u);
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(daemon->Finish().ExitedWith(1));
}

TEST(Gakppcd, CustomProcessStartsWhenItIsOrdered)
{
    const auto daemon = StartDaemon({"--json"});
    const Fd asker = RawConnect(kServer);
    RawMessage request = FromWorker(3, 1);
    request.proc_type = 2;
    request.host_pid = 99;
    request.lib_names = {{"liba", "libb"}};
    ASSERT_TRUE(WriteAll(asker, PpcFrame(FromWorker(0, 1))));
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    ASSERT_TRUE(daemon->WaitForOut("host pid 99, libraries: liba libb"));
    EXPECT_FALSE(WaitReadable(asker, std::chrono::milliseconds(100))) << "nobody has ordered it yet";
    daemon->Write("start-custom 1 4711\n");
    const RawMessage answer = ReadOrder(asker);
    EXPECT_EQ(answer.type, 0u);
    EXPECT_EQ(answer.dest_id, 1u);
    EXPECT_EQ(answer.proc_type, 2u);
    EXPECT_EQ(answer.sub_proc_pid, 4711u);
    ASSERT_TRUE(daemon->WaitForOut("SENT_START_RSP"));
    EXPECT_EQ(CountOf(daemon->out(), "\"event\":\"SPAWNED\",\"device\":1,\"process_type\":\"CUSTOM_COMPUTE\""), 1u);
}

TEST(Gakppcd, CustomProcessStartsByItselfOnceForADevice)
{
    const auto daemon = StartDaemon({"--json", "--auto-custom"});
    const Fd asker = RawConnect(kServer);
    RawMessage request = FromWorker(3, 1);
    request.proc_type = 2;
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    EXPECT_EQ(ReadOrder(asker).proc_type, 2u);
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    EXPECT_EQ(ReadOrder(asker).proc_type, 2u);
    ASSERT_TRUE(daemon->WaitForOut("SENT_START_RSP"));
    EXPECT_EQ(CountOf(daemon->out(), "\"SPAWNED\",\"device\""), 1u) << daemon->out();
}

TEST(Gakppcd, NothingIsSentBehindTheOrderToShutDown)
{
    const auto daemon = StartDaemon({"--grace", "600", "--worker-program", "/bin/true", "--auto-custom"});
    const Fd asker = RawConnect(kServer);
    const Fd custom = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(asker, PpcFrame(FromWorker(3, 1))));
    ASSERT_TRUE(daemon->WaitForOut("NOTIFY_VEXOINFO"));
    daemon->Kill(SIGTERM);
    EXPECT_EQ(ReadOrder(asker).type, 5u);
    RawMessage start = FromWorker(0, 1, 4712);
    start.proc_type = 2;
    ASSERT_TRUE(WriteAll(custom, PpcFrame(start)));
    EXPECT_EQ(ReadOrder(custom).type, 5u);
    ASSERT_TRUE(WriteAll(asker, PpcFrame(FromWorker(3, 1))));
    EXPECT_TRUE(daemon->WaitUntilOutput([&] { return CountOf(daemon->out(), "NOTIFY_VEXOINFO") == 2; }));
    daemon->Kill(SIGTERM);  // enough waited
    EXPECT_TRUE(ExpectEof(asker, kLimit));
}

TEST(Gakppcd, CustomProcessDoesNotStartWhileTheDaemonStops)
{
    const auto daemon = StartDaemon({"--grace", "600", "--worker-program", "/bin/true", "--auto-custom"});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 1))));
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    daemon->Kill(SIGTERM);
    EXPECT_EQ(ReadOrder(worker).type, 5u);
    const Fd asker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(asker, PpcFrame(FromWorker(3, 2))));
    EXPECT_TRUE(daemon->WaitForOut("NOTIFY_VEXOINFO"));
    daemon->Kill(SIGTERM);  // enough waited
    daemon->Finish();
    EXPECT_EQ(CountOf(daemon->out(), "SPAWNED"), 0u) << daemon->out();
}

TEST(Gakppcd, ListensForOrdersWhereItIsTold)
{
    const auto daemon = StartDaemon({"--control", "/home/orders"});
    EXPECT_TRUE(Ctl({"stop", "--control", "/home/orders"}).status.ExitedWith(0));
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
}

TEST(Gakppcd, SecondDaemonIsRefusedUnlessItReplaces)
{
    const auto first = StartDaemon();
    const Outcome second = RunTool(kGakppcd, {});
    EXPECT_TRUE(second.status.ExitedWith(1)) << second.status;
    EXPECT_NE(second.err.find("listens at"), std::string::npos) << second.err;
    EXPECT_TRUE(RunTool(kGakppcd, {"--replace", "--for", "0.1"}).status.ExitedWith(0));
}

TEST(Gakppcd, DaemonThatCannotBeSeenIsNotCalledProcessZero)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    const auto first = StartDaemon();
    const auto second = StartAsNobody(kGakppcd, {});
    EXPECT_TRUE(second->Finish().ExitedWith(1));
    EXPECT_EQ(second->err().rfind("gakppcd: a process that cannot be seen from here listens at ", 0), 0U)
        << second->err();
}

TEST(Gakppcd, TimeEndsIt)
{
    const Outcome outcome = RunTool(kGakppcd, {"--for", "0.1"});
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    EXPECT_NE(outcome.out.find("STOPPING"), std::string::npos);
}

TEST(Gakppcd, ShutsItsWorkersDownWhenNobodyReadsItsEvents)
{
    const auto daemon = StartDaemon({"--grace", "0.1"});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 1))));
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    daemon->CloseOutput();
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2, 1))));
    EXPECT_EQ(ReadOrder(worker).type, 5U);
    EXPECT_TRUE(ExpectEof(worker, kLimit));
    EXPECT_TRUE(daemon->Finish().ExitedWith(1));
    EXPECT_EQ(daemon->err().find("standard output"), std::string::npos) << daemon->err();
}

TEST(Gakppcd, LogGoesToAFile)
{
    const Outcome outcome = RunTool(kGakppcd, {"--for", "0.1", "--log", "/home/daemon.log"});
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(access("/home/daemon.log", F_OK), 0);
    EXPECT_TRUE(RunTool(kGakppcd, {"--log", "/nowhere/daemon.log"}).status.ExitedWith(1));
}

TEST(Gakppcd, TableIsDrawnOverItsFormerSelfOnATerminal)
{
    const auto daemon = StartDaemon({}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 3))));
    EXPECT_TRUE(daemon->WaitForOut("     3  COMPUTE             4711  \033[32mSTARTED"));
    EXPECT_EQ(CountOf(daemon->out(), "\033[2J"), 1u) << "the screen is cleared once";
    EXPECT_GE(CountOf(daemon->out(), "\0337\033[H"), 2u);
}

TEST(Gakppcd, NoColorKeepsTheTableAndDropsTheColours)
{
    const auto daemon = StartDaemon({}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR=1"});
    const Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 3))));
    EXPECT_TRUE(daemon->WaitForOut("     3  COMPUTE             4711  STARTED"));
    EXPECT_EQ(daemon->out().find("\033[32m"), std::string::npos);
}

TEST(Gakppcd, WrongArgumentsAreWrongUsage)
{
    for (const char* spawn : {"4:ZOLT", "0", "0:NONE", "0:ZOLT:0", "x:ZOLT", "0:MAXPROCTYPE"}) {
        EXPECT_TRUE(RunTool(kGakppcd, {"--spawn", spawn}).status.ExitedWith(2)) << spawn;
    }
    EXPECT_TRUE(RunTool(kGakppcd, {"--grace", "soon"}).status.ExitedWith(2));
    EXPECT_TRUE(RunTool(kGakppcd, {"--no-such-option"}).status.ExitedWith(2));
}

}  // namespace
}  // namespace gaktest
