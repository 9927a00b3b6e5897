// The command: what it prints of real daemons and workers. What it rests on is tested in connections_test.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "sanitizer_options.h"
#include "screen.h"
#include "tap_fixture.h"

namespace gaktest {
namespace {

using Json = nlohmann::json;

struct Lists {
    std::vector<Json> servers;
    std::vector<Json> connections;
};

Lists Parse(const std::string& text)
{
    Lists lists;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const Json json = Json::parse(line);
        (json["kind"] == "server" ? lists.servers : lists.connections).push_back(json);
    }
    return lists;
}

class ListTest : public TapTest {
protected:
    void SetUp() override
    {
        if (kUnderEmulator) {
            GTEST_SKIP() << "the emulator knows no NETLINK_SOCK_DIAG";
        }
    }

    static std::string Text()
    {
        const Outcome outcome = Ctl({"list"});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.err;
        EXPECT_EQ(outcome.err, "");
        return outcome.out;
    }

    static Lists Parsed()
    {
        const Outcome outcome = Ctl({"list", "--json"});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.err;
        EXPECT_TRUE(FitsSchema(outcome.out, "list"));
        return Parse(outcome.out);
    }

    static Json OnlyConnection()
    {
        const Lists lists = Parsed();
        EXPECT_EQ(lists.connections.size(), 1U);
        return lists.connections.empty() ? Json::object() : lists.connections.front();
    }

    std::unique_ptr<Tool> StartWorker(const std::string& device = "1")
    {
        auto worker =
            std::make_unique<Tool>(kGakppctl, std::vector<std::string>{"worker", "--device", device, "--for", "300"});
        daemon_ = RawAccept(listener_, kLimit);
        EXPECT_TRUE(ReadPpcFrame(daemon_, kLimit).has_value());
        return worker;
    }
};

TEST_F(ListTest, NoDaemonIsAnExitStatusOfItsOwn)
{
    listener_.Reset();
    for (const std::vector<std::string>& words : {std::vector<std::string>{"list"}, {"list", "--json"}}) {
        const Outcome outcome = Ctl(words);
        EXPECT_TRUE(outcome.status.ExitedWith(3)) << outcome.status;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "gakppctl: no daemon listens at " + kSock + "\n");
    }
}

TEST_F(ListTest, DaemonWithoutWorkers)
{
    const std::string text = Text();
    EXPECT_EQ(text.find("daemon " + std::to_string(getpid()) + " (list_test), started "), 0U) << text;
    EXPECT_NE(text.find(" ago, user root: 0 connections\n"), std::string::npos) << text;
    EXPECT_EQ(CountOf(text, "\n"), 1U) << text;
    const Lists lists = Parsed();
    ASSERT_EQ(lists.servers.size(), 1U);
    EXPECT_TRUE(lists.connections.empty());
    EXPECT_EQ(lists.servers[0]["role"], "daemon");
    EXPECT_EQ(lists.servers[0]["reach"], "direct");
    EXPECT_EQ(lists.servers[0]["processes"][0]["pid"], getpid());
    EXPECT_EQ(lists.servers[0]["processes"][0]["descriptors"], Json{listener_.get()});
    struct stat status {};
    ASSERT_EQ(fstat(listener_.get(), &status), 0);
    EXPECT_EQ(lists.servers[0]["socket"], status.st_ino);
}

TEST_F(ListTest, WorkerWithItsProcessUserAndProgram)
{
    const auto worker = StartWorker();
    const std::string text = Text();
    EXPECT_NE(text.find("  PID  USER  PROGRAM   "), std::string::npos) << text;
    EXPECT_NE(text.find("  " + std::to_string(worker->pid()) + "  root  gakppctl  "), std::string::npos) << text;
    const Json connection = OnlyConnection();
    EXPECT_EQ(connection["state"], "established");
    EXPECT_EQ(connection["pid"], worker->pid());
    EXPECT_EQ(connection["user"], "root");
    EXPECT_EQ(connection["uid"], 0);
    EXPECT_EQ(connection["worker"]["processes"][0]["program"], "gakppctl");
    EXPECT_EQ(connection["daemon"]["processes"][0]["pid"], getpid());
    EXPECT_EQ(connection["daemon"]["processes"][0]["descriptors"], Json{daemon_.get()});
    EXPECT_TRUE(connection["device"].is_null()) << "the kernel does not know it";
    EXPECT_EQ(connection["is_tap"], false);
}

TEST_F(ListTest, WorkerThatDoesNotReadStandsFirst)
{
    std::vector<Fd> ends;
    for (int i = 0; i < 5; ++i) {
        Connect();
        ends.push_back(std::move(worker_));
        ends.push_back(std::move(daemon_));
    }
    Connect();
    ASSERT_TRUE(WriteAll(daemon_, Bytes(4711)));
    const Lists lists = Parsed();
    ASSERT_EQ(lists.connections.size(), 6U);
    EXPECT_EQ(lists.connections[0]["to_worker"], 4711);
    EXPECT_EQ(lists.connections[0]["to_daemon"], 0);
    EXPECT_EQ(lists.connections[0]["daemon"]["processes"][0]["descriptors"], Json{daemon_.get()});
    EXPECT_EQ(lists.connections[1]["to_worker"], 0);
    ASSERT_TRUE(WriteAll(daemon_, Bytes(1)));
    EXPECT_EQ(Parsed().connections[0]["to_worker"], 4712);
    EXPECT_NE(Text().find("          0       4712\n"), std::string::npos) << Text();
}

TEST_F(ListTest, DaemonThatDoesNotRead)
{
    Connect();
    ASSERT_TRUE(WriteAll(worker_, Bytes(123456)));
    EXPECT_EQ(OnlyConnection()["to_daemon"], 123456);
    EXPECT_NE(Text().find("     123456          0\n"), std::string::npos) << Text();
}

TEST_F(ListTest, TerminalMarksUnreadBytes)
{
    Connect();
    const auto shown = [] {
        Tool tool(kGakppctl, {"list"}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="});
        tool.Finish();
        return tool.out();
    };
    EXPECT_EQ(shown().find("\033["), std::string::npos);
    ASSERT_TRUE(WriteAll(worker_, Bytes(5)));
    EXPECT_NE(shown().find("\033[33m  "), std::string::npos) << shown();
}

TEST_F(ListTest, PendingConnection)
{
    worker_ = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker_, Bytes(5)));
    const Json connection = OnlyConnection();
    EXPECT_EQ(connection["state"], "pending");
    EXPECT_TRUE(connection["to_daemon"].is_null()) << "the kernel tells no number";
    EXPECT_EQ(connection["to_worker"], 0);
    EXPECT_TRUE(connection["daemon"]["socket"].is_null());
    EXPECT_EQ(Parsed().servers[0]["pending"], 1);
    const std::string text = Text();
    EXPECT_NE(text.find(": 1 connection, 1 pending\n"), std::string::npos) << text;
    EXPECT_NE(text.find("    unknown          0  pending"), std::string::npos) << text;
}

TEST_F(ListTest, EndedWorkerWhoseBytesWait)
{
    Connect();
    ASSERT_TRUE(WriteAll(worker_, Bytes(9)));
    worker_.Reset();
    const Json connection = OnlyConnection();
    EXPECT_EQ(connection["state"], "ended");
    EXPECT_EQ(connection["to_daemon"], 9);
    EXPECT_TRUE(connection["pid"].is_null());
    EXPECT_TRUE(connection["user"].is_null());
    EXPECT_NE(Text().find("  unknown  unknown  unknown  unknown          9          0  ended\n"), std::string::npos)
        << Text();
}

TEST_F(ListTest, ForkedChildThatHoldsTheConnectionAsWell)
{
    Connect();
    const ChildProcess child([] {
        pause();
        return 0;
    });
    const Json connection = OnlyConnection();
    ASSERT_EQ(connection["worker"]["processes"].size(), 2U);
    EXPECT_EQ(connection["pid"], getpid());
    EXPECT_EQ(connection["worker"]["processes"][1]["pid"], child.pid());
    const std::string text = Text();
    EXPECT_NE(text.find("  also held by " + std::to_string(child.pid()) + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" (list_test, and 1 more), started "), std::string::npos) << text;
}

TEST_F(ListTest, TapStandsBetween)
{
    Connect();
    const Fd early = std::move(worker_);
    const Fd earlyAtDaemon = std::move(daemon_);
    Start();
    Connect();
    const Lists lists = Parsed();
    ASSERT_EQ(lists.servers.size(), 2U);
    EXPECT_EQ(lists.servers[0]["role"], "tap");
    EXPECT_EQ(lists.servers[0]["reach"], "direct");
    EXPECT_EQ(lists.servers[0]["processes"][0]["pid"], tap_->pid());
    EXPECT_EQ(lists.servers[1]["role"], "daemon");
    EXPECT_EQ(lists.servers[1]["reach"], "through_tap");
    EXPECT_EQ(lists.servers[1]["processes"][0]["pid"], getpid());
    std::map<int, std::vector<Json>> pids;
    for (const Json& connection : lists.connections) {
        pids[connection["server"]].push_back(connection["pid"]);
        EXPECT_EQ(connection["is_tap"], connection["pid"] == tap_->pid());
    }
    EXPECT_EQ(pids[1], std::vector<Json>{getpid()}) << "the worker that came later";
    EXPECT_THAT(pids[2], testing::UnorderedElementsAre(getpid(), tap_->pid()));
    const std::string text = Text();
    EXPECT_NE(text.find("; it stands in front of the daemon\n"), std::string::npos) << text;
    EXPECT_NE(text.find("; a tap stands in front of it\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  tap\n"), std::string::npos) << text;
}

TEST_F(ListTest, DaemonThatWasReplacedKeepsItsWorkers)
{
    Connect();
    const Fd next = RawListen(kServer);
    const Lists lists = Parsed();
    ASSERT_EQ(lists.servers.size(), 2U);
    EXPECT_EQ(lists.servers[1]["reach"], "none");
    EXPECT_EQ(lists.connections[0]["server"], 2);
    EXPECT_NE(Text().find("; nobody who connects now comes to it\n"), std::string::npos) << Text();
    listener_.Reset();
    EXPECT_TRUE(Parsed().servers[1]["socket"].is_null());
    EXPECT_NE(Text().find("; it no longer listens\n"), std::string::npos) << Text();
}

TEST_F(ListTest, UserWhoMayNotSeeTheProcesses)
{
    const auto worker = StartWorker();
    const auto nobody = StartCtlAsNobody({"list"});
    EXPECT_TRUE(nobody->Finish().ExitedWith(0)) << nobody->err();
    EXPECT_EQ(
        nobody->out().find("daemon of an unknown process, user root: 1 connection; whether it is reached is unknown"),
        0U)
        << nobody->out();
    EXPECT_NE(nobody->out().find("  unknown  root  unknown  unknown          0          0\n"), std::string::npos)
        << nobody->out();
    EXPECT_NE(nobody->out().find("not all processes can be seen: "), std::string::npos) << nobody->out();
    EXPECT_EQ(Text().find("not all processes"), std::string::npos);
    const auto json = StartCtlAsNobody({"list", "--json"});
    EXPECT_TRUE(json->Finish().ExitedWith(0));
    EXPECT_TRUE(FitsSchema(json->out(), "list"));
    EXPECT_EQ(Parse(json->out()).servers[0]["complete"], false);
}

TEST_F(ListTest, SystemThatHidesProcesses)
{
    const auto worker = StartWorker();
    Tool hidden("unshare", {"--mount", "sh", "-c", "mount -t tmpfs none /proc && exec \"$0\" list", kGakppctl});
    EXPECT_TRUE(hidden.Finish().ExitedWith(0)) << hidden.err();
    EXPECT_NE(hidden.out().find("  unknown  root  unknown  unknown          0          0\n"), std::string::npos)
        << hidden.out();
}

TEST_F(ListTest, DaemonInANetworkThatMayNotBeSeen)
{
    listener_.Reset();
    Tool daemon("unshare", {"--net", "sh", "-c", "umask 0; exec \"$0\" --json", kGakppcd});
    ASSERT_TRUE(daemon.WaitForOut("SERVING"));
    ASSERT_EQ(chmod("/home/KrovaUser/qel_ppc", 0777), 0);
    const auto nobody = StartCtlAsNobody({"list"});
    EXPECT_TRUE(nobody->Finish().ExitedWith(1));
    EXPECT_NE(nobody->err().find("another network namespace"), std::string::npos) << nobody->err();
    const std::string text = Text();
    EXPECT_NE(text.find(" (gakppcd), started "), std::string::npos) << text;
}

TEST_F(ListTest, HostileNamesNeverReachTheTerminalRaw)
{
    listener_.Reset();
    listener_ = RawListen(kServer);
    const std::string name = ")\033[2J\n \x80\"x";
    const ChildProcess worker([&name] {
        prctl(PR_SET_NAME, name.c_str());
        const Fd connection = RawConnect(kServer);
        pause();
        return 0;
    });
    daemon_ = RawAccept(listener_, kLimit);
    Tool tool(kGakppctl, {"list"}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR=1"});
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
    EXPECT_EQ(tool.out().find('\033'), std::string::npos);
    EXPECT_EQ(tool.out().find('\x80'), std::string::npos);
    EXPECT_NE(tool.out().find("  )\\x1b[2J\\n \\x80"), std::string::npos) << tool.out();
    EXPECT_EQ(CountOf(tool.out(), "\n"), 3U) << tool.out();
    EXPECT_EQ(Parsed().connections.size(), 1U);
}

TEST_F(ListTest, FiveHundredWorkersAndOnePassOverProc)
{
    listener_ = RawListen(kServer, 600);
    std::vector<Fd> ends;
    for (int i = 0; i < 500; ++i) {
        Connect();
        ends.push_back(std::move(worker_));
        ends.push_back(std::move(daemon_));
    }
    EXPECT_EQ(Parsed().connections.size(), 500U);
    EXPECT_EQ(CountOf(Text(), "\n"), 502U);
    if (kUnderSanitizer) {
        return;
    }
    Tool traced("strace", {"-f", "-e", "trace=openat", "-o", "/home/trace", kGakppctl, "list"});
    if (traced.Finish().ExitedWith(127)) {
        GTEST_SKIP() << "strace is not installed";
    }
    std::ifstream in("/home/trace");
    const std::string trace{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(CountOf(trace, "\"/proc\","), 1U) << trace;
    EXPECT_EQ(CountOf(trace, "\"" + std::to_string(getpid()) + "\", O_"), 1U) << trace;
}

TEST_F(ListTest, WatchShowsOneListAfterTheOther)
{
    Connect();
    Tool tool(kGakppctl, {"list", "--watch", "0.1"});
    ASSERT_TRUE(tool.WaitForOut(": 1 connection\n"));
    ASSERT_TRUE(WriteAll(daemon_, Bytes(777)));
    ASSERT_TRUE(tool.WaitForOut("        777\n"));
    worker_.Reset();
    daemon_.Reset();
    ASSERT_TRUE(tool.WaitForOut(": 0 connections\n\n"));
    listener_.Reset();
    ASSERT_TRUE(tool.WaitForOut("\nno daemon listens at " + kSock + "\n\n"));
    listener_ = RawListen(kServer);
    const size_t sofar = tool.out().size();
    EXPECT_TRUE(tool.WaitUntilOutput([&] { return tool.out().find("daemon ", sofar) != std::string::npos; }));
    tool.Kill(SIGTERM);
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
    EXPECT_EQ(tool.err(), "");
}

TEST_F(ListTest, WatchAsJson)
{
    Tool tool(kGakppctl, {"list", "--json", "--watch", "0.1"});
    ASSERT_TRUE(tool.WaitUntilOutput([&tool] { return CountOf(tool.out(), "\n") >= 2; }, kLimit));
    listener_.Reset();
    ASSERT_TRUE(tool.WaitForOut("no_server"));
    tool.Kill(SIGINT);
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
    EXPECT_TRUE(FitsSchema(tool.out(), "list"));
}

TEST_F(ListTest, WatchEndsAfterItsTime)
{
    const Outcome outcome = Ctl({"list", "--watch", "0.2", "--for", "0.5"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status;
    EXPECT_GE(CountOf(outcome.out, "daemon "), 1U);
    EXPECT_LE(CountOf(outcome.out, "daemon "), 3U);
    EXPECT_EQ(CountOf(Ctl({"list", "--watch", "60", "--for", "0"}).out, "daemon "), 1U);
}

TEST_F(ListTest, WatchEndsOnASignalAlthoughNobodyReads)
{
    std::vector<Fd> ends;
    for (int i = 0; i < 100; ++i) {
        Connect();
        ends.push_back(std::move(worker_));
        ends.push_back(std::move(daemon_));
    }
    ASSERT_EQ(mkfifo("/home/pipe", 0600), 0);
    Tool stuck("sh", {"-c", "exec \"$0\" list --watch 0.1 > /home/pipe", kGakppctl});
    const Fd reader(open("/home/pipe", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(fcntl(reader.get(), F_SETPIPE_SZ, 4096), 4096) << "less than one list takes";
    ASSERT_TRUE(WaitUntil(
        [&reader] {
            int bytes = 0;
            ioctl(reader.get(), FIONREAD, &bytes);
            return bytes == 4096;
        },
        kLimit));
    stuck.Kill(SIGTERM);
    EXPECT_TRUE(stuck.Finish().ExitedWith(0));
}

TEST_F(ListTest, WatchOnATerminalStaysInPlace)
{
    Connect();
    const TerminalSize size{10, 80};
    Tool tool(kGakppctl, {"list", "--watch", "0.1"}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="}, size);
    const auto shows = [&](const std::string& text) {
        return tool.WaitUntilOutput([&] { return Screen(tool.out(), size).Shows(text); }, kLimit);
    };
    EXPECT_TRUE(shows(": 1 connection"));
    std::vector<Fd> ends;
    for (int i = 0; i < 15; ++i) {
        ends.push_back(RawConnect(kServer));
        ends.push_back(RawAccept(listener_, kLimit));
    }
    ASSERT_TRUE(WriteAll(ends.back(), Bytes(4321)));
    EXPECT_TRUE(shows("and 11 more lines"));
    EXPECT_TRUE(shows(" 4321")) << "it comes first";
    ends.clear();
    EXPECT_TRUE(shows(": 1 connection"));
    tool.Kill(SIGINT);
    EXPECT_TRUE(tool.Finish().ExitedWith(0));
    const Screen screen(tool.out(), size);
    EXPECT_EQ(screen.UnknownCode(), "");
    EXPECT_EQ(screen.Wraps(), 0U);
    EXPECT_EQ(screen.Scrolls(), 0U);
    EXPECT_FALSE(screen.Shows("4321")) << screen.Text();
}

TEST_F(ListTest, OptionsThatDoNotFit)
{
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"list", "--for", "1"}, {"list", "--watch", "0"}, {"list", "--watch", "nan"}, {"list", "--watch"}}) {
        const Outcome outcome = Ctl(words);
        EXPECT_TRUE(outcome.status.ExitedWith(2)) << words.back() << outcome.status;
        EXPECT_EQ(CountOf(outcome.err, "\n"), 1U) << outcome.err;
        EXPECT_NE(outcome.err.find(words[1]), std::string::npos) << outcome.err;
    }
}

}  // namespace
}  // namespace gaktest
