// The command: what it prints of real daemons and workers. What it rests on is tested in connections_test.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "control_fixture.h"
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

    // An ordinary user's namespace does not show the processes outside.
    static std::string WithoutNotes(std::string text)
    {
        const std::string note = "not all processes can be seen: ";
        for (size_t at = 0; !MapsOtherUsers() && (at = text.find(note)) != std::string::npos;) {
            text.erase(at, text.find('\n', at) + 1 - at);
        }
        return text;
    }

    static std::string Text()
    {
        const Outcome outcome = Ctl({"list"});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.err;
        EXPECT_EQ(outcome.err, "");
        return WithoutNotes(outcome.out);
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
        auto worker = std::make_unique<Tool>(
            kGakppctl, std::vector<std::string>{"worker", "--device", device, "--heartbeat", "0", "--for", "300"});
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
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
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
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
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
    EXPECT_EQ(CountOf(WithoutNotes(tool.out()), "\n"), 3U) << tool.out();
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
    const auto shows = [&](const std::string& text) {
        return tool.WaitUntilOutput([&] { return WithoutNotes(tool.out()).find(text) != std::string::npos; });
    };
    ASSERT_TRUE(tool.WaitForOut(": 1 connection\n"));
    ASSERT_TRUE(WriteAll(daemon_, Bytes(777)));
    ASSERT_TRUE(tool.WaitForOut("        777\n"));
    worker_.Reset();
    daemon_.Reset();
    ASSERT_TRUE(shows(": 0 connections\n\n"));
    listener_.Reset();
    ASSERT_TRUE(shows("\nno daemon listens at " + kSock + "\n\n"));
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
    for (const char* const seconds : {"0", "0.1"}) {
        const Outcome once = Ctl({"list", "--watch", "3000000", "--for", seconds});
        EXPECT_TRUE(once.status.ExitedWith(0)) << once.status;
        EXPECT_EQ(CountOf(once.out, "daemon "), 1U);
    }
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
    const Fd reader(open("/home/pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(fcntl(reader.get(), F_SETPIPE_SZ, 4096), 4096) << "less than one list takes";
    Tool stuck("sh", {"-c", "exec \"$0\" list --watch 0.1 > /home/pipe", kGakppctl});
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
    EXPECT_TRUE(shows(MapsOtherUsers() ? "and 11 more lines" : " more lines"));
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

// The kernel's number of a socket.
uint64_t NumberOf(const Fd& socket)
{
    struct stat status {};
    EXPECT_EQ(fstat(socket.get(), &status), 0);
    return status.st_ino;
}

// What a connection's worker claims.
std::string ClaimOf(const Json& connection)
{
    if (connection["device"].is_null()) {
        EXPECT_TRUE(connection["process_type"].is_null() && connection["claimed_pid"].is_null()) << connection;
        return "unknown";
    }
    return connection["device"].dump() + " " + connection["process_type"].get<std::string>() + " " +
           connection["claimed_pid"].dump();
}

// By the number of the worker's end, or the daemon's.
using ClaimMap = std::map<uint64_t, std::string>;
ClaimMap ClaimsBy(const char* end, const Lists& lists)
{
    ClaimMap claims;
    for (const Json& connection : lists.connections) {
        claims[connection[end]["socket"]] = ClaimOf(connection);
    }
    return claims;
}

Fd ReportStart(Tool& daemon, uint32_t device, uint32_t type, uint32_t pid)
{
    Fd worker = RawConnect(kServer);
    RawMessage message = FromWorker(0, device, pid);
    message.proc_type = type;
    EXPECT_TRUE(WriteAll(worker, PpcFrame(message)));
    EXPECT_TRUE(daemon.WaitForOut(" pid " + std::to_string(pid) + " STARTED"));
    return worker;
}

// A gakppcd listens.
class ListOfGakppcdTest : public ListTest {
protected:
    void SetUp() override
    {
        ListTest::SetUp();
        listener_.Reset();
    }

    // On a busy machine it does not always answer in the time that it is given.
    static Lists ListedOnceItAnswers(std::vector<std::string> more = {})
    {
        more.insert(more.begin(), {"list", "--json"});
        Lists lists;
        std::string text;
        EXPECT_TRUE(WaitUntil(
            [&] {
                text = Ctl(more).out;
                lists = Parse(text);
                return std::any_of(lists.connections.begin(), lists.connections.end(),
                                   [](const Json& connection) { return ClaimOf(connection) != "unknown"; });
            },
            kLimit));
        EXPECT_TRUE(FitsSchema(text, "list"));
        return lists;
    }

    static void ExpectNoClaims(const std::vector<std::string>& more, size_t connections = 1)
    {
        std::vector<std::string> words{"list", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        const Outcome outcome = Ctl(words);
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.err;
        EXPECT_EQ(outcome.err, "");
        EXPECT_TRUE(FitsSchema(outcome.out, "list"));
        const Lists lists = Parse(outcome.out);
        EXPECT_EQ(lists.connections.size(), connections);
        for (const Json& connection : lists.connections) {
            EXPECT_EQ(ClaimOf(connection), "unknown") << testing::PrintToString(more);
        }
    }
};

TEST_F(ListOfGakppcdTest, WorkersOfSeveralDevicesAndTypes)
{
    const auto daemon = StartDaemon();
    const Fd compute = ReportStart(*daemon, 0, 1, 4711);
    const Fd zolt = ReportStart(*daemon, 1, 0, 4712);
    const Fd custom = ReportStart(*daemon, 0, 2, 4713);
    const Fd silent = RawConnect(kServer);
    Tool other(kGakppctl, {"worker", "--device", "2", "--type", "ZOLT", "--for", "300"});
    const std::string otherPid = std::to_string(other.pid());
    ASSERT_TRUE(daemon->WaitForOut(" pid " + otherPid + " STARTED"));
    const Lists lists = ListedOnceItAnswers();
    ClaimMap claims = ClaimsBy("worker", lists);
    ASSERT_EQ(claims.size(), 5U);
    EXPECT_EQ(claims[NumberOf(compute)], "0 COMPUTE 4711");
    EXPECT_EQ(claims[NumberOf(zolt)], "1 ZOLT 4712");
    EXPECT_EQ(claims[NumberOf(custom)], "0 CUSTOM_COMPUTE 4713");
    EXPECT_EQ(claims[NumberOf(silent)], "unknown");
    for (const Json& connection : lists.connections) {
        EXPECT_EQ(connection["pid"] == other.pid(), ClaimOf(connection) == "2 ZOLT " + otherPid) << connection;
    }
    ClaimMap byDaemonsEnd = ClaimsBy("daemon", lists);
    for (const Json& worker : Json::parse(Ctl({"workers", "--json"}).out)["workers"]) {
        EXPECT_EQ(
            byDaemonsEnd[worker["socket"]],
            worker["device"].dump() + " " + worker["process_type"].get<std::string>() + " " + worker["pid"].dump());
    }
}

TEST_F(ListOfGakppcdTest, ClaimsInTheTable)
{
    const auto daemon = StartDaemon();
    const Fd worker = ReportStart(*daemon, 3, 0, 4711);
    const Fd silent = RawConnect(kServer);
    std::string text;
    const auto shows = [&text](const char* part) { return text.find(part) != std::string::npos; };
    ASSERT_TRUE(WaitUntil([&] { return text = Text(), shows(": 2 connections\n") && shows("CLAIMS"); }, kLimit))
        << "one is pending at first, and the daemon may answer late: " << text;
    EXPECT_NE(text.find("  TO DAEMON  TO WORKER   DEVICE  TYPE      CLAIMS  NOTE\n"), std::string::npos) << text;
    EXPECT_NE(text.find("          0          0        3  ZOLT        4711\n"), std::string::npos) << text;
    EXPECT_NE(text.find("          0          0  unknown  unknown  unknown\n"), std::string::npos) << text;
    Tool watch(kGakppctl, {"list", "--watch", "0.1"});
    EXPECT_TRUE(watch.WaitForOut("  ZOLT        4711\n"));
}

TEST_F(ListOfGakppcdTest, ConnectionOfTwoClaimsHasNone)
{
    const auto daemon = StartDaemon();
    const Fd first = ReportStart(*daemon, 0, 1, 4711);
    const Fd second = ReportStart(*daemon, 1, 1, 4712);
    ASSERT_TRUE(WriteAll(first, PpcFrame(FromWorker(0, 2, 4713))));
    ASSERT_TRUE(daemon->WaitForOut(" pid 4713 STARTED"));
    ClaimMap claims = ClaimsBy("worker", ListedOnceItAnswers());
    EXPECT_EQ(claims[NumberOf(first)], "unknown");
    EXPECT_EQ(claims[NumberOf(second)], "1 COMPUTE 4712");
}

TEST_F(ListOfGakppcdTest, ClaimOfTwoConnectionsIsTheLastOnes)
{
    const auto daemon = StartDaemon();
    const Fd first = ReportStart(*daemon, 0, 1, 4711);
    const Fd second = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(second, PpcFrame(FromWorker(2, 0, 4711))));
    ASSERT_TRUE(daemon->WaitForOut("HEARTBEAT"));
    ClaimMap claims = ClaimsBy("worker", ListedOnceItAnswers());
    EXPECT_EQ(claims[NumberOf(first)], "unknown");
    EXPECT_EQ(claims[NumberOf(second)], "0 COMPUTE 4711");
}

TEST_F(ListOfGakppcdTest, ClaimsThroughATapBelongToItsConnections)
{
    const auto daemon = StartDaemon();
    const Fd early = ReportStart(*daemon, 0, 1, 4711);
    Start();
    const Fd late = ReportStart(*daemon, 1, 0, 4712);
    const Lists lists = ListedOnceItAnswers();
    EXPECT_EQ(lists.connections.size(), 3U);
    for (const Json& connection : lists.connections) {
        const bool isTap = connection["is_tap"];
        const bool isOfTap = connection["server"] == 1;
        EXPECT_EQ(ClaimOf(connection), isTap ? "1 ZOLT 4712" : isOfTap ? "unknown" : "0 COMPUTE 4711") << connection;
    }
}

TEST_F(ListOfGakppcdTest, ReplacedDaemonKnowsItsOwnWorkers)
{
    const auto former = StartDaemon({"--control", "/home/former"});
    const Fd early = ReportStart(*former, 0, 1, 4711);
    const auto daemon = StartDaemon({"--replace", "--control", "/home/control"});
    const Fd late = ReportStart(*daemon, 1, 1, 4712);
    ExpectNoClaims({}, 2);
    EXPECT_EQ(ClaimsBy("worker", ListedOnceItAnswers({"--control", "/home/control"})),
              (ClaimMap{{NumberOf(early), "unknown"}, {NumberOf(late), "1 COMPUTE 4712"}}));
    EXPECT_EQ(ClaimsBy("worker", ListedOnceItAnswers({"--control", "/home/former"})),
              (ClaimMap{{NumberOf(early), "0 COMPUTE 4711"}, {NumberOf(late), "unknown"}}));
}

TEST_F(ListOfGakppcdTest, DaemonThatHangsIsShownWithoutClaims)
{
    const auto daemon = StartDaemon();
    const Fd worker = ReportStart(*daemon, 0, 1, 4711);
    ListedOnceItAnswers();
    daemon->Kill(SIGSTOP);
    ExpectNoClaims({});
    Tool watch(kGakppctl, {"list", "--watch", "0.1"});
    EXPECT_TRUE(watch.WaitUntilOutput([&] { return CountOf(watch.out(), ": 1 connection\n") == 2; }, kLimit));
    EXPECT_TRUE(Ctl({"list", "--watch", "0.1", "--for", "0.3"}).status.ExitedWith(0)) << "a look takes longer";
    daemon->Kill(SIGCONT);
    EXPECT_TRUE(watch.WaitForOut("  COMPUTE    4711\n"));
}

TEST_F(ListOfGakppcdTest, ControlSocketThatCannotBeReached)
{
    const auto daemon = StartDaemon();
    const Fd worker = ReportStart(*daemon, 0, 1, 4711);
    FakeDaemon("/home/left").Reset();
    std::ofstream("/home/file") << "no socket";
    for (const std::string path : {"/nowhere", "/home/left", "/home/file", "/home", "/dev/null"}) {
        ExpectNoClaims({"--control", path});
    }
    ExpectNoClaims({"--control", "/" + std::string(200, 'x')});
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    const auto nobody = StartCtlAsNobody({"list", "--control", kControlPath});
    EXPECT_TRUE(nobody->Finish().ExitedWith(0)) << nobody->err();
    EXPECT_EQ(nobody->out().find("CLAIMS"), std::string::npos) << nobody->out();
}

// A daemon that the test plays, with a control socket of its own.
class ListOfFakeTest : public ListTest {
protected:
    void SetUp() override
    {
        ListTest::SetUp();
        Connect();
    }

    Json Worker() const { return {{"device", 3}, {"process_type", "ZOLT"}, {"pid", 9}, {"socket", NumberOf(daemon_)}}; }
    static std::string AnswerOf(const Json& worker)
    {
        return Json({{"ok", true}, {"daemon", getpid()}, {"workers", {worker}}}).dump() + "\n";
    }
    std::string AnswerWith(const std::string& member, const Json& value) const
    {
        Json worker = Worker();
        worker[member] = value;
        return AnswerOf(worker);
    }

    // What is listed when the order gets this answer.
    Lists ListedAfter(const std::string& answer) const
    {
        Tool tool(kGakppctl, {"list", "--json"});
        const Fd session = RawAccept(control_, kLimit);
        EXPECT_EQ(ReadExactly(session, kOrder.size(), kLimit), ToBytes(kOrder));
        WriteAll(session, ToBytes(answer));
        EXPECT_TRUE(tool.Finish().ExitedWith(0)) << tool.err() << answer.substr(0, 1000);
        EXPECT_EQ(tool.err(), "");
        return Parse(tool.out());
    }

    std::vector<std::string> ClaimsAfter(const std::string& answer) const
    {
        std::vector<std::string> claims;
        for (const Json& connection : ListedAfter(answer).connections) {
            claims.push_back(ClaimOf(connection));
        }
        return claims;
    }

    const std::string kOrder = "{\"order\":\"workers\"}\n";
    const int made_ = mkdir("/home/gakppcd", 0700);
    const Fd control_ = FakeDaemon(kControlPath);
};

const std::vector<std::string> kOneUnknown{"unknown"};

TEST_F(ListOfFakeTest, AnswerIsBelieved)
{
    std::vector<std::string> claims;
    ASSERT_TRUE(WaitUntil([&] { return (claims = ClaimsAfter(AnswerOf(Worker()))) != kOneUnknown; }, kLimit));
    EXPECT_EQ(claims, std::vector<std::string>{"3 ZOLT 9"});
    EXPECT_EQ(ClaimsAfter(AnswerWith("socket", nullptr)), kOneUnknown);
    EXPECT_EQ(ClaimsAfter(AnswerWith("socket", NumberOf(worker_))), kOneUnknown) << "the other end";
    EXPECT_EQ(ClaimsAfter(AnswerWith("socket", NumberOf(listener_))), kOneUnknown);
}

TEST_F(ListOfFakeTest, AnswerThatIsWrongIsIgnored)
{
    Json nobodys = Worker();
    nobodys.erase("socket");
    Json broken = Worker();
    broken["device"] = "x";
    const std::string right = AnswerOf(Worker());
    for (const std::string& answer : std::vector<std::string>{
             "\n", "no\n", "[]\n", "{}\n", "7\n", "null\n", "{\"ok\":true}\n", "{\"ok\":1}\n", "\xff\xfe\n",
             std::string("\0\n", 2), right.substr(0, right.size() / 2) + "\n", "\n" + right.substr(0, 9) + "\n",
             "{\"ok\":false,\"error\":\"no\"}\n", AnswerOf(nobodys),
             Json({{"ok", true}, {"daemon", getpid() + 1}, {"workers", {Worker()}}}).dump() + "\n",
             Json({{"ok", true}, {"daemon", std::to_string(getpid())}, {"workers", {Worker()}}}).dump() + "\n",
             Json({{"ok", true}, {"daemon", getpid()}, {"workers", {Worker(), broken}}}).dump() + "\n",
             Json({{"ok", true}, {"daemon", getpid()}, {"workers", {7, nullptr, "x"}}}).dump() + "\n",
             Json({{"ok", true}, {"daemon", getpid()}, {"workers", 7}}).dump() + "\n"}) {
        EXPECT_EQ(ClaimsAfter(answer), kOneUnknown) << answer;
    }
    for (const Json& wrong :
         std::vector<Json>{nullptr, true, -1, 3.0, "3", 4294967296, Json::array(), Json::object()}) {
        for (const std::string member : {"device", "pid"}) {
            EXPECT_EQ(ClaimsAfter(AnswerWith(member, wrong)), kOneUnknown) << member << wrong;
        }
    }
    EXPECT_EQ(ClaimsAfter(AnswerWith("socket", std::to_string(NumberOf(daemon_)))), kOneUnknown);
    EXPECT_EQ(ClaimsAfter(AnswerWith("socket", NumberOf(daemon_) + 4294967296)), kOneUnknown);
    EXPECT_EQ(ClaimsAfter(AnswerWith("process_type", 0)), kOneUnknown);
    EXPECT_EQ(ClaimsAfter(AnswerWith("process_type", nullptr)), kOneUnknown);
}

TEST_F(ListOfFakeTest, AnswerThatIsHugeIsIgnored)
{
    constexpr size_t kHuge = 20UL * 1024 * 1024;
    const std::string right = AnswerOf(Worker());
    EXPECT_EQ(ClaimsAfter(std::string(kHuge, ' ') + right), kOneUnknown);
    EXPECT_EQ(ClaimsAfter(std::string(kHuge, '[')), kOneUnknown);
    EXPECT_EQ(ClaimsAfter("{\"ok\":true,\"daemon\":" + std::string(1000000, '[') + "\n"), kOneUnknown);
    EXPECT_EQ(ClaimsAfter("{\"ok\":true,\"x\":" + std::string(1000000, '[') + std::string(1000000, ']') + "}\n"),
              kOneUnknown);
}

TEST_F(ListOfFakeTest, DaemonThatDoesNotAnswerIsWaitedForForASecond)
{
    EXPECT_EQ(OnlyConnection()["device"], nullptr) << "it does not accept";
    RawAccept(control_, kLimit).Reset();
    Tool tool(kGakppctl, {"list", "--json"});
    const Fd session = RawAccept(control_, kLimit);
    while (WriteAll(session, {' '})) {
        poll(nullptr, 0, 1);
    }
    EXPECT_TRUE(tool.Finish().ExitedWith(0)) << "it never ends its answer";
    EXPECT_EQ(ClaimOf(Parse(tool.out()).connections.at(0)), "unknown");
    EXPECT_EQ(ClaimsAfter(""), kOneUnknown) << "it is silent";
}

TEST_F(ListOfFakeTest, ConnectionThatAnotherProcessServesStaysUnknown)
{
    const Fd shared = std::move(daemon_);
    const Fd worker = std::move(worker_);
    Connect();
    const uint64_t given = NumberOf(daemon_);
    const ChildProcess child([] {
        pause();
        return 0;
    });
    daemon_.Reset();
    const Json both{{"device", 3}, {"process_type", "ZOLT"}, {"pid", 9}, {"socket", NumberOf(shared)}};
    const Json notOurs{{"device", 3}, {"process_type", "ZOLT"}, {"pid", 9}, {"socket", given}};
    const std::string answer = Json({{"ok", true}, {"daemon", getpid()}, {"workers", {both, notOurs}}}).dump() + "\n";
    ClaimMap claims;
    ASSERT_TRUE(WaitUntil(
        [&] { return (claims = ClaimsBy("daemon", ListedAfter(answer)))[NumberOf(shared)] != "unknown"; }, kLimit));
    EXPECT_EQ(claims[given], "unknown");
}

TEST_F(ListOfFakeTest, ProcessThatServesNoConnectionIsNotAsked)
{
    ASSERT_EQ(unlink(kControlPath), 0);
    auto [ready, other] = SocketPair();
    const std::string answer = AnswerOf(Worker());
    const ChildProcess child([this, &other = other, &answer] {
        listener_.Reset();
        daemon_.Reset();
        const Fd control = FakeDaemon(kControlPath);
        WriteAll(other, {1});
        const Fd session = RawAccept(control, kLimit);
        WriteAll(session, ToBytes(answer));
        WriteAll(other, ReadExactly(session, 1, kLimit).empty() ? Bytes{2} : Bytes{3});
        return 0;
    });
    EXPECT_EQ(ReadExactly(ready, 1, kLimit), Bytes{1});
    EXPECT_EQ(OnlyConnection()["device"], nullptr);
    EXPECT_EQ(ReadExactly(ready, 1, kLimit), Bytes{2});
}

TEST_F(ListOfFakeTest, HostileTypeNeverReachesTheTerminalRaw)
{
    const std::string answer = AnswerWith("process_type", "\033[2J\nZOLT");
    std::string text;
    ASSERT_TRUE(WaitUntil(
        [&] {
            Tool tool(kGakppctl, {"list"});
            const Fd session = RawAccept(control_, kLimit);
            WriteAll(session, ToBytes(answer));
            EXPECT_TRUE(tool.Finish().ExitedWith(0));
            text = tool.out();
            return text.find("CLAIMS") != std::string::npos;
        },
        kLimit));
    EXPECT_EQ(text.find('\033'), std::string::npos) << text;
    EXPECT_NE(text.find("  \\x1b[2J\\nZOLT"), std::string::npos) << text;
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
