// gakppctl workers, shutdown, start-custom and stop.

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "control_fixture.h"

namespace gaktest {
namespace {

using Json = nlohmann::ordered_json;

// The message that a worker gets.
RawMessage ReadMessage(const Fd& worker)
{
    return ReadPpcFrame(worker, kLimit).value_or(RawMessage{});
}

TEST(WorkersVerb, ShowsTheTable)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon, 1);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2, 1))));
    ASSERT_TRUE(daemon->WaitForOut("HEARTBEAT"));
    const Outcome outcome = Ctl({"workers"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_EQ(outcome.out.rfind("DEVICE  PROCESS TYPE         PID  REAL PID  STATE      HEARTBEATS        LAST  SINCE\n"
                                "     1  COMPUTE             4711  ",
                                0),
              0U)
        << outcome.out;
    EXPECT_NE(outcome.out.find("  " + std::to_string(getpid()) + "  RUNNING             1       "), std::string::npos)
        << outcome.out;
}

TEST(WorkersVerb, JsonFitsItsSchemaAndKnowsTheRealProcess)
{
    const auto daemon = StartDaemon({"--spawn", "2:ZOLT"});
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    const Fd worker = StartWorker(*daemon, 1);
    const Outcome outcome = Ctl({"workers", "--json", "--control", kControlPath, "--timeout", "20"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_TRUE(FitsSchema(outcome.out, "control_answer"));
    const Json answer = Json::parse(outcome.out);
    EXPECT_EQ(answer["daemon"], daemon->pid());
    ASSERT_EQ(answer["workers"].size(), 2U);
    const Json& claimed = answer["workers"][0];
    EXPECT_EQ(claimed["pid"], 4711);
    EXPECT_EQ(claimed["real_pid"], getpid());
    EXPECT_EQ(claimed["real_uid"], getuid());
    EXPECT_EQ(claimed["spawned"], false);
    EXPECT_EQ(claimed["connected"], true);
    EXPECT_EQ(claimed["heartbeat_age"], nullptr);
    const Json& spawned = answer["workers"][1];
    EXPECT_EQ(spawned["real_pid"], spawned["pid"]);
    EXPECT_EQ(spawned["process_type"], "ZOLT");
    EXPECT_EQ(spawned["spawned"], true);
    EXPECT_LE(spawned["since"], claimed["since"]);
}

// The numbers of the sockets that a process has open.
std::set<uint64_t> SocketsOf(pid_t pid)
{
    std::set<uint64_t> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        struct stat status {};
        if (stat(entry.path().c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
            numbers.insert(status.st_ino);
        }
    }
    return numbers;
}

TEST(WorkersVerb, NamesTheDaemonsEndOfEachConnection)
{
    const auto daemon = StartDaemon();
    const std::set<uint64_t> before = SocketsOf(daemon->pid());
    const Fd first = StartWorker(*daemon, 1, 100);
    const std::set<uint64_t> between = SocketsOf(daemon->pid());
    Fd second = StartWorker(*daemon, 2, 200);
    const std::set<uint64_t> after = SocketsOf(daemon->pid());
    Json workers = Json::parse(Ctl({"workers", "--json"}).out)["workers"];
    ASSERT_EQ(workers.size(), 2U);
    const uint64_t firstEnd = workers[0]["socket"];
    const uint64_t secondEnd = workers[1]["socket"];
    EXPECT_EQ(before.count(firstEnd) + before.count(secondEnd) + between.count(secondEnd), 0U);
    EXPECT_EQ(between.count(firstEnd) + after.count(secondEnd), 2U);
    second.Reset();
    ASSERT_TRUE(daemon->WaitForOut("SOCKET_CLOSE"));
    second = StartWorker(*daemon, 2, 200);
    ASSERT_TRUE(daemon->WaitUntilOutput([&] { return CountOf(daemon->out(), "pid 200 STARTED") == 2; }, kLimit));
    workers = Json::parse(Ctl({"workers", "--json"}).out)["workers"];
    EXPECT_EQ(workers[0]["socket"], firstEnd);
    EXPECT_NE(workers[1]["socket"], secondEnd) << "it has connected anew";
}

TEST(WorkersVerb, RealProcessIsUnknownBeforeTheFirstMessage)
{
    const auto daemon = StartDaemon({"--spawn", "0:ZOLT", "--worker-program", "/bin/cat"});
    ASSERT_TRUE(daemon->WaitForOut("EXIT"));
    const Outcome outcome = Ctl({"workers", "--json"});
    EXPECT_TRUE(FitsSchema(outcome.out, "control_answer"));
    EXPECT_EQ(Json::parse(outcome.out)["workers"][0]["real_pid"], nullptr);
    EXPECT_EQ(Json::parse(outcome.out)["workers"][0]["socket"], nullptr);
    EXPECT_NE(Ctl({"workers"}).out.find("         -  DIED "), std::string::npos) << Ctl({"workers"}).out;
}

TEST(ShutdownVerb, TellsOneWorker)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon, 2);
    const Fd other = StartWorker(*daemon, 3);
    const Outcome outcome = Ctl({"shutdown", "2", "4711"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_EQ(outcome.out, "device 2 COMPUTE pid 4711 STOPPING\n");
    EXPECT_EQ(ReadMessage(worker).type, 5U);
    EXPECT_FALSE(WaitReadable(other, std::chrono::milliseconds(0)));
    EXPECT_TRUE(Ctl({"shutdown", "2", "4711"}).status.ExitedWith(0));
    EXPECT_FALSE(WaitReadable(worker, std::chrono::milliseconds(0))) << "it is told once";
    const Outcome unknown = Ctl({"shutdown", "2", "4712"});
    EXPECT_TRUE(unknown.status.ExitedWith(1));
    EXPECT_EQ(unknown.err, "gakppctl: no worker with device 2 and pid 4712\n");
}

TEST(ShutdownVerb, TellsAllWorkers)
{
    const auto daemon = StartDaemon();
    EXPECT_EQ(Ctl({"shutdown", "all"}).out, "") << "there is none";
    const Fd first = StartWorker(*daemon, 0, 100);
    const Fd second = StartWorker(*daemon, 3, 200);
    EXPECT_EQ(Ctl({"shutdown", "all"}).out, "device 0 COMPUTE pid 100 STOPPING\ndevice 3 COMPUTE pid 200 STOPPING\n");
    EXPECT_EQ(ReadMessage(first).type, 5U);
    EXPECT_EQ(ReadMessage(second).type, 5U);
}

TEST(ShutdownVerb, WaitsUntilTheWorkersHaveGone)
{
    const auto daemon = StartDaemon({"--spawn", "0:COMPUTE:2"});
    ASSERT_TRUE(daemon->WaitUntilOutput([&] { return CountOf(daemon->out(), "STARTED") == 2; }));
    const Outcome outcome = Ctl({"shutdown", "all", "--wait", "--json", "--timeout", "20"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_TRUE(FitsSchema(outcome.out, "control_answer"));
    EXPECT_EQ(CountOf(outcome.out, "STOPPED"), 2U) << outcome.out;
    EXPECT_EQ(CountOf(outcome.out, "\"connected\":false"), 2U) << outcome.out;
    EXPECT_TRUE(Ctl({"workers"}).status.ExitedWith(0)) << "the daemon goes on";
}

TEST(ShutdownVerb, WaitFailsForAWorkerThatGoesWithoutAcknowledging)
{
    const auto daemon = StartDaemon();
    Fd worker = StartWorker(*daemon);
    Tool ctl(kGakppctl, {"shutdown", "0", "4711", "--wait", "--timeout", "20"});
    EXPECT_EQ(ReadMessage(worker).type, 5U);
    worker.Reset();
    EXPECT_TRUE(ctl.Finish().ExitedWith(1));
    EXPECT_EQ(ctl.err(), "gakppctl: device 0 pid 4711 has not acknowledged its shutdown: LOST\n");
}

TEST(ShutdownVerb, WaitEndsWithItsTimeLimit)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    const Outcome outcome = Ctl({"shutdown", "all", "--wait", "--timeout", "0.3"});
    EXPECT_TRUE(outcome.status.ExitedWith(124)) << outcome.status;
    EXPECT_EQ(outcome.err, "gakppctl: the daemon has not answered in time\n");
}

TEST(ShutdownVerb, WhatIsNoWorkerIsWrongUsage)
{
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"shutdown"},
                                               {"shutdown", "0"},
                                               {"shutdown", "all", "5"},
                                               {"shutdown", "x", "5"},
                                               {"shutdown", "0", "-5"},
                                               {"shutdown", "0", "4294967296"},
                                               {"start-custom", "0"},
                                               {"start-custom", "all"},
                                               {"start-custom", "0", "5x"},
                                               {"stop", "now"},
                                               {"workers", "0"}}) {
        const Outcome outcome = Ctl(arguments);
        EXPECT_TRUE(outcome.status.ExitedWith(2)) << arguments.front() << ": " << outcome.status << outcome.err;
    }
}

TEST(StartCustomVerb, StartsItOnceForTheWorkerThatHasAsked)
{
    const auto daemon = StartDaemon();
    const Fd asker = StartWorker(*daemon, 1);
    RawMessage request = FromWorker(3, 1);
    request.proc_type = 2;
    ASSERT_TRUE(WriteAll(asker, PpcFrame(request)));
    ASSERT_TRUE(daemon->WaitForOut("NOTIFY_VEXOINFO"));
    const Outcome outcome = Ctl({"start-custom", "1", "4711", "--json"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_TRUE(FitsSchema(outcome.out, "control_answer"));
    const RawMessage answer = ReadMessage(asker);
    EXPECT_EQ(answer.type, 0U);
    EXPECT_EQ(answer.proc_type, 2U);
}

TEST(StartCustomVerb, ProcessThatCannotBeStartedIsAFailure)
{
    const auto daemon = StartDaemon({"--worker-program", "/nowhere"});
    const Fd asker = StartWorker(*daemon, 1);
    const Outcome outcome = Ctl({"start-custom", "1", "4711", "--control", kControlPath});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err, "gakppctl: /nowhere: No such file or directory\n");
}

TEST(StartCustomVerb, WorkerThatIsShuttingDownIsRefused)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon, 1);
    ASSERT_TRUE(Ctl({"shutdown", "1", "4711"}).status.ExitedWith(0));
    const Outcome outcome = Ctl({"start-custom", "1", "4711"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_EQ(outcome.err, "gakppctl: device 1 pid 4711 is shutting down\n");
}

TEST(StopVerb, EndsTheDaemonAsQuitDoes)
{
    const auto daemon = StartDaemon({"--spawn", "0:COMPUTE"});
    ASSERT_TRUE(daemon->WaitForOut("STARTED"));
    const Outcome outcome = Ctl({"stop", "--json"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
    EXPECT_TRUE(FitsSchema(outcome.out, "control_answer"));
    EXPECT_TRUE(daemon->Finish().ExitedWith(0)) << daemon->err();
    EXPECT_NE(daemon->out().find("EXIT (exit 0)"), std::string::npos);
    EXPECT_TRUE(Ctl({"stop"}).status.ExitedWith(3)) << "it has ended";
}

TEST(StopVerb, WaitsUntilTheNextDaemonMayStart)
{
    for (int i = 0; i < 5; ++i) {
        const auto daemon = StartDaemon({"--spawn", "0:COMPUTE"});
        ASSERT_TRUE(daemon->WaitForOut("STARTED"));
        const Outcome outcome = Ctl({"stop", "--wait", "--control", kControlPath, "--timeout", "20"});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.err;
        EXPECT_EQ(CountOf(daemon->err(), "gakppcd: "), 0U) << daemon->err();
    }
}

TEST(StopVerb, WaitFailsWhenAWorkerIsCut)
{
    const auto daemon = StartDaemon({"--grace", "0.1"});
    const Fd worker = StartWorker(*daemon);
    const Outcome outcome = Ctl({"stop", "--wait", "--timeout", "20"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_EQ(outcome.err, "gakppctl: the daemon has ended, but not in order\n");
}

TEST(StopVerb, WorksWithoutStandardInput)
{
    Tool daemon("sh", {"-c", "exec \"$0\" </dev/null", kGakppcd});
    ASSERT_TRUE(daemon.WaitForOut("SERVING"));
    const Fd worker = StartWorker(daemon);
    EXPECT_TRUE(Ctl({"shutdown", "all"}).status.ExitedWith(0));
    EXPECT_EQ(ReadMessage(worker).type, 5U);
    EXPECT_TRUE(Ctl({"stop"}).status.ExitedWith(0));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(1))));
    EXPECT_TRUE(daemon.WaitForOut("STOPPED"));
}

class EveryVerb : public testing::TestWithParam<std::vector<std::string>> {
protected:
    static Outcome Run(std::vector<std::string> more, const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> words = GetParam();
        words.insert(words.end(), more.begin(), more.end());
        Tool tool(kGakppctl, words, Tool::Output::kPipe, environment);
        const ExitStatus status = tool.Finish();
        return {status, tool.out(), tool.err()};
    }
};

TEST_P(EveryVerb, NobodyThereIsStatus3)
{
    const Outcome missing = Run({});
    EXPECT_TRUE(missing.status.ExitedWith(3)) << missing.status;
    EXPECT_EQ(missing.err, "gakppctl: no daemon listens at /home/gakppcd/control: No such file or directory\n");
    FakeDaemon("/home/left").Reset();
    const Outcome left = Run({"--control", "/home/left"});
    EXPECT_TRUE(left.status.ExitedWith(3)) << left.status;
    EXPECT_NE(left.err.find("/home/left: Connection refused"), std::string::npos) << left.err;
}

TEST_P(EveryVerb, DaemonThatDoesNotAnswerIsATimeOut)
{
    const Fd silent = FakeDaemon("/home/silent");
    const Outcome outcome = Run({"--control", "/home/silent", "--timeout", "0.2"});
    EXPECT_TRUE(outcome.status.ExitedWith(124)) << outcome.status;
    EXPECT_EQ(outcome.err, "gakppctl: the daemon has not answered in time\n");
}

TEST_P(EveryVerb, AnswerThatNeverComesToItsEndIsATimeOut)
{
    const Fd listener = FakeDaemon("/home/trickle");
    std::vector<std::string> words = GetParam();
    words.insert(words.end(), {"--control", "/home/trickle", "--timeout", "0.2"});
    Tool tool(kGakppctl, words);
    const Fd session = RawAccept(listener, kLimit);
    const Deadline limit(kLimit);
    while (!limit.Passed() && WriteAll(session, ToBytes("x"))) {  // there is always something to read
    }
    EXPECT_FALSE(limit.Passed());
    EXPECT_TRUE(tool.Finish().ExitedWith(124)) << tool.err();
}

TEST_P(EveryVerb, AnswerThatIsNoneIsAFailure)
{
    for (const std::string answer : {"", "half", "no\n", "[]\n", "{\"ok\":1}\n", "{}\n", "{\"ok\":true}\n",
                                     "{\"ok\":true,\"workers\":[{}]}\n", "{\"ok\":false}\n", "\xff\n"}) {
        unlink("/home/liar");
        const Fd listener = FakeDaemon("/home/liar");
        std::vector<std::string> words = GetParam();
        words.insert(words.end(), {"--control", "/home/liar", "--timeout", "20"});
        Tool tool(kGakppctl, words);
        Fd session = RawAccept(listener, kLimit);
        EXPECT_TRUE(WaitReadable(session, kLimit));
        ReadExactly(session, 10, kLimit);
        ASSERT_TRUE(WriteAll(session, ToBytes(answer)));
        session.Reset();
        EXPECT_TRUE(tool.Finish().ExitedWith(1)) << answer << tool.out();
        EXPECT_EQ(CountOf(tool.err(), "\n"), 1U) << tool.err();
    }
}

TEST_P(EveryVerb, DefaultPathIsThatOfTheDaemon)
{
    const Outcome root = Run({}, {"RUNTIME_DIRECTORY="});
    EXPECT_NE(root.err.find("gakppctl: no daemon listens at /run/gakppcd/control"), std::string::npos) << root.err;
    const Outcome several = Run({}, {"RUNTIME_DIRECTORY=/home/a:/home/b"});
    EXPECT_NE(several.err.find(" /home/a/control: "), std::string::npos) << several.err;
    const Outcome tooLong = Run({"--control", "/" + std::string(107, 'x')});
    EXPECT_TRUE(tooLong.status.ExitedWith(2)) << tooLong.status;
}

TEST_P(EveryVerb, OrdinaryUsersHaveAPathOfTheirOwn)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    for (const bool hasOwn : {true, false}) {
        setenv("RUNTIME_DIRECTORY", "", 1);
        setenv("XDG_RUNTIME_DIR", hasOwn ? "/home/own" : "", 1);
        const auto tool = StartCtlAsNobody(GetParam());
        EXPECT_TRUE(tool->Finish().ExitedWith(hasOwn ? 3 : 2)) << tool->err();
        EXPECT_NE(tool->err().find(hasOwn ? " /home/own/gakppcd/control: No such file"
                                          : "--control is needed: neither RUNTIME_DIRECTORY nor XDG_RUNTIME_DIR"),
                  std::string::npos)
            << tool->err();
    }
}

INSTANTIATE_TEST_SUITE_P(Verbs, EveryVerb,
                         testing::Values(std::vector<std::string>{"workers"},
                                         std::vector<std::string>{"shutdown", "0", "1"},
                                         std::vector<std::string>{"start-custom", "0", "1"},
                                         std::vector<std::string>{"stop"}));

}  // namespace
}  // namespace gaktest
