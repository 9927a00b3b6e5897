// The control socket of gakppcd: its file, its protocol, and peers that mean harm.

#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <csignal>
#include <fstream>
#include <list>

#include "control_fixture.h"

namespace gaktest {
namespace {

const std::string kWorkersOrder = R"({"order":"workers"})";

testing::AssertionResult IsRefused(const std::string& answer, const std::string& reason)
{
    const std::string begin = R"({"ok":false,"error":")";
    if (answer.rfind(begin, 0) != 0 || answer.find(reason) == std::string::npos || answer.back() != '\n') {
        return testing::AssertionFailure() << "\"" << answer << "\" instead of a refusal with " << reason;
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult IsGranted(const std::string& answer)
{
    return answer.rfind(R"({"ok":true,)", 0) == 0 && answer.back() == '\n'
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "\"" << answer << "\"";
}

bool Exists(const std::string& path)
{
    struct stat file {};
    return lstat(path.c_str(), &file) == 0;
}

mode_t ModeOf(const std::string& path)
{
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? file.st_mode & 07777 : 0;
}

// ---- The file ----

TEST(ControlSocket, IsForItsUserOnlyWhateverTheUmask)
{
    Tool daemon("sh", {"-c", "umask 0; exec \"$0\"", kGakppcd});
    ASSERT_TRUE(daemon.WaitForOut("SERVING"));
    EXPECT_EQ(ModeOf(kControlPath), 0600U);
    EXPECT_EQ(ModeOf("/home/gakppcd"), 0700U) << "the directory that it has made";
}

TEST(ControlSocket, IsRemovedAtAnOrderlyEnd)
{
    const auto daemon = StartDaemon({"--control", "/home/orders"});
    EXPECT_TRUE(Exists("/home/orders"));
    EXPECT_FALSE(Exists(kControlPath)) << "there is one only";
    daemon->Kill(SIGTERM);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
    EXPECT_FALSE(Exists("/home/orders"));
}

TEST(ControlSocket, FileThatIsNotItsOwnAnyMoreIsKept)
{
    const auto daemon = StartDaemon();
    ASSERT_EQ(unlink(kControlPath), 0);
    std::ofstream(kControlPath) << "somebody else's";
    daemon->Kill(SIGTERM);
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
    EXPECT_TRUE(Exists(kControlPath));
}

TEST(ControlSocket, LeftoverOfAKilledDaemonIsReplaced)
{
    {
        const auto killed = StartDaemon();
        killed->Kill(SIGKILL);
        killed->Finish();
    }
    EXPECT_TRUE(Exists(kControlPath));
    const auto daemon = StartDaemon();
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

TEST(ControlSocket, LivingDaemonKeepsItsOwn)
{
    const auto first = StartDaemon();
    const Outcome refused = RunTool(kGakppcd, {"--replace", "--control", kControlPath, "--for", "0"});
    EXPECT_TRUE(refused.status.ExitedWith(1)) << refused.status;
    EXPECT_NE(refused.err.find("control socket /home/gakppcd/control: another daemon listens there"), std::string::npos)
        << refused.err;
    const Outcome warned = RunTool(kGakppcd, {"--replace", "--for", "0"});
    EXPECT_TRUE(warned.status.ExitedWith(0)) << "the default path is a courtesy: " << warned.err;
    EXPECT_NE(warned.err.find("another daemon listens there"), std::string::npos) << warned.err;
    EXPECT_NE(ControlPeer().Ask(kWorkersOrder).find("\"daemon\":" + std::to_string(first->pid())), std::string::npos);
}

TEST(ControlSocket, StoppedDaemonKeepsItsOwn)
{
    const auto first = StartDaemon();
    first->Kill(SIGSTOP);
    const Outcome refused = RunTool(kGakppcd, {"--replace", "--control", kControlPath, "--for", "0"});
    first->Kill(SIGCONT);
    EXPECT_TRUE(refused.status.ExitedWith(1)) << refused.err;
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

TEST(ControlSocket, FileThatIsNoSocketIsNeverReplaced)
{
    std::ofstream("/home/precious") << "data";
    const Outcome outcome = RunTool(kGakppcd, {"--control", "/home/precious"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_NE(outcome.err.find("exists and is no socket"), std::string::npos) << outcome.err;
    EXPECT_TRUE(Exists("/home/precious"));
}

TEST(ControlSocket, PathThatCannotBeIsAnError)
{
    const Outcome nowhere = RunTool(kGakppcd, {"--control", "/home/nowhere/control"});
    EXPECT_TRUE(nowhere.status.ExitedWith(1)) << nowhere.status;
    EXPECT_NE(nowhere.err.find("/home/nowhere/control: No such file"), std::string::npos) << nowhere.err;
    const Outcome tooLong = RunTool(kGakppcd, {"--control", "/home/" + std::string(200, 'x')});
    EXPECT_TRUE(tooLong.status.ExitedWith(1)) << tooLong.status;
    EXPECT_NE(tooLong.err.find("a path has 1 to 107 bytes"), std::string::npos) << tooLong.err;
    EXPECT_TRUE(RunTool(kGakppcd, {"--control", ""}).status.ExitedWith(2));
}

TEST(ControlSocket, DefaultPathThatCannotBeIsAWarning)
{
    const auto daemon = StartDaemon({"--for", "0"}, {"RUNTIME_DIRECTORY=/home/no/where"});
    EXPECT_TRUE(daemon->Finish().ExitedWith(0));
    EXPECT_NE(daemon->err().find("control socket /home/no/where/control: No such file"), std::string::npos)
        << daemon->err();
}

// ---- The protocol ----

TEST(ControlProtocol, AnswersFitTheirSchema)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon, 1);
    const ControlPeer peer;
    std::string answers;
    for (const std::string& order :
         std::vector<std::string>{kWorkersOrder, R"({"order":"shutdown","device":1,"pid":4711})",
                                  R"({"order":"shutdown-all"})", "nonsense", R"({"order":"stop"})"}) {
        answers += peer.Ask(order);
    }
    EXPECT_TRUE(FitsSchema(answers, "control_answer"));
    EXPECT_EQ(CountOf(answers, R"({"ok":true,"daemon":)" + std::to_string(daemon->pid())), 4U) << answers;
}

TEST(ControlProtocol, SchemaOfOrdersIsWhatTheDaemonTakes)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    for (const std::string& order :
         {kWorkersOrder, std::string(R"({"order":"shutdown","device":1,"pid":4294967295,"wait":true})"),
          std::string(R"({"wait":false,"order":"shutdown-all"})"),
          std::string(R"({"order":"start-custom","device":0,"pid":0})")}) {
        EXPECT_TRUE(FitsSchema(order, "control_order"));
        const std::string answer = peer.Ask(order);
        EXPECT_TRUE(IsGranted(answer) || IsRefused(answer, "no worker with device")) << order;
    }
}

struct WrongOrder {
    const char* order;
    const char* reason;
};
void PrintTo(const WrongOrder& wrong, std::ostream* out)
{
    *out << wrong.order;
}
class WrongOrderTest : public testing::TestWithParam<WrongOrder> {};

TEST_P(WrongOrderTest, IsRefusedWithItsReasonAndTheNextOneServed)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    const std::string answer = peer.Ask(GetParam().order);
    EXPECT_TRUE(IsRefused(answer, GetParam().reason));
    EXPECT_TRUE(FitsSchema(answer, "control_answer"));
    EXPECT_FALSE(FitsSchema(GetParam().order, "control_order")) << "the schema accepts it";
    EXPECT_TRUE(IsGranted(peer.Ask(kWorkersOrder)));
}

INSTANTIATE_TEST_SUITE_P(
    Orders, WrongOrderTest,
    testing::Values(
        WrongOrder{"", "no JSON, from byte 1 on"}, WrongOrder{"workers", "no JSON, from byte 1 on"},
        WrongOrder{"{\"order\":\"workers\"", "no JSON, from byte 19 on"},
        WrongOrder{"\xff\xfe", "no JSON, from byte 1 on"},
        WrongOrder{"{\"order\":\"\xff\"}", "no JSON, from byte 11 on"}, WrongOrder{"[]", "no JSON object"},
        WrongOrder{"null", "no JSON object"}, WrongOrder{"{}", "\\\"order\\\" is missing, or no string"},
        WrongOrder{R"({"order":5})", "\\\"order\\\" is missing, or no string"},
        WrongOrder{R"({"order":"dance"})", "unknown order \\\"dance\\\""},
        WrongOrder{R"({"order":"Workers"})", "unknown order"},
        WrongOrder{R"({"order":"workers","device":1})", "workers has no member \\\"device\\\""},
        WrongOrder{R"({"order":"workers","wait":true})", "workers has no member \\\"wait\\\""},
        WrongOrder{R"({"order":"start-custom","device":1,"pid":2,"wait":true})", "no member \\\"wait\\\""},
        WrongOrder{R"({"order":"stop","force":true})", "stop has no member \\\"force\\\""},
        WrongOrder{R"({"order":"stop","wait":1})", "\\\"wait\\\" is neither true nor false"},
        WrongOrder{R"({"order":"shutdown"})", "\\\"device\\\" is missing, or no integer from 0 to 4294967295"},
        WrongOrder{R"({"order":"shutdown","device":1})", "\\\"pid\\\" is missing, or no integer"},
        WrongOrder{R"({"order":"shutdown","device":"1","pid":2})", "\\\"device\\\" is missing, or no integer"},
        WrongOrder{R"({"order":"shutdown","device":1.5,"pid":2})", "\\\"device\\\" is missing, or no integer"},
        WrongOrder{R"({"order":"shutdown","device":-1,"pid":2})", "\\\"device\\\" is missing, or no integer"},
        WrongOrder{R"({"order":"shutdown","device":1,"pid":4294967296})", "\\\"pid\\\" is missing, or no integer"},
        WrongOrder{R"({"order":"shutdown","device":1,"pid":1e400})", "no JSON: a number is out of range"},
        WrongOrder{R"({"order":"shutdown","device":1,"pid":null})", "\\\"pid\\\" is missing, or no integer"}));

TEST(ControlProtocol, OrdersOfOneWriteAreAnsweredInTheirOrder)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    ASSERT_TRUE(peer.Send(R"({"order":"shutdown","device":1,"pid":1})"
                          "\n" +
                          kWorkersOrder + "\r\nx\n" + R"({"order":"shutdown","device":2,"pid":2})" + "\n"));
    peer.EndSending();
    EXPECT_TRUE(IsRefused(peer.ReadLine(), "no worker with device 1 and pid 1"));
    EXPECT_TRUE(IsGranted(peer.ReadLine()));
    EXPECT_TRUE(IsRefused(peer.ReadLine(), "no JSON"));
    EXPECT_TRUE(IsRefused(peer.ReadLine(), "no worker with device 2 and pid 2"));
    EXPECT_TRUE(ExpectEof(peer.socket(), kLimit));
}

TEST(ControlProtocol, HalfAnOrderIsNotCarriedOut)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    ASSERT_TRUE(peer.Send(R"({"order":"stop"})"));
    peer.EndSending();
    EXPECT_TRUE(IsRefused(peer.ReadLine(), "the last order has no newline at its end"));
    EXPECT_TRUE(ExpectEof(peer.socket(), kLimit));
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

TEST(ControlProtocol, OrderOf4096BytesIsTakenAndALongerOneRefused)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    EXPECT_TRUE(IsGranted(peer.Ask(kWorkersOrder + std::string(4096 - kWorkersOrder.size(), ' '))));
    EXPECT_TRUE(IsRefused(peer.Ask(kWorkersOrder + std::string(4097 - kWorkersOrder.size(), ' ')),
                          "an order has at most 4096 bytes"));
    EXPECT_TRUE(ExpectEof(peer.socket(), kLimit));
}

TEST(ControlProtocol, LineWithoutEndIsRefused)
{
    const auto daemon = StartDaemon();
    const ControlPeer peer;
    WriteAll(peer.socket(), Bytes(1U << 20, 'x'));  // fails as soon as the daemon has had enough
    EXPECT_TRUE(IsRefused(peer.ReadLine(), "an order has at most 4096 bytes"));
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

TEST(ControlProtocol, TypedCommandAndOrderGetTheSameRefusal)
{
    const auto daemon = StartDaemon();
    Fd worker = StartWorker(*daemon, 1);
    worker.Reset();
    ASSERT_TRUE(daemon->WaitForOut("LOST"));
    const ControlPeer peer;
    for (const auto& [typed, order, reason] : std::vector<std::array<std::string, 3>>{
             {"shutdown 0 77", R"({"order":"shutdown","device":0,"pid":77})", "no worker with device 0 and pid 77"},
             {"start-custom 9 7", R"({"order":"start-custom","device":9,"pid":7})",
              "no worker with device 9 and pid 7"},
             {"shutdown 1 4711", R"({"order":"shutdown","device":1,"pid":4711})",
              "device 1 pid 4711 is not connected"}}) {
        daemon->Write(typed + "\n");
        EXPECT_TRUE(daemon->WaitForErr("gakppcd: " + reason + "\n"));
        EXPECT_EQ(peer.Ask(order), R"({"ok":false,"error":")" + reason + "\"}\n");
    }
}

TEST(ControlProtocol, SecondOrderToShutDownSendsNothingMore)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    const ControlPeer peer;
    const std::string order = R"({"order":"shutdown","device":0,"pid":4711})";
    EXPECT_NE(peer.Ask(order).find("STOPPING"), std::string::npos);
    EXPECT_NE(peer.Ask(order).find("STOPPING"), std::string::npos);
    EXPECT_TRUE(IsGranted(peer.Ask(R"({"order":"shutdown-all"})")));
    EXPECT_EQ(ReadPpcFrame(worker, kLimit).value_or(RawMessage{}).type, 5U);
    EXPECT_FALSE(WaitReadable(worker, std::chrono::milliseconds(100)));
    EXPECT_TRUE(IsRefused(peer.Ask(R"({"order":"start-custom","device":0,"pid":4711})"), "is shutting down"));
}

// ---- Peers that mean harm ----

TEST(ControlHarm, OtherUsersAreRefused)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    const auto daemon = StartDaemon({"--control", "/home/orders"});
    ASSERT_EQ(chmod("/home/orders", 0666), 0);  // as if somebody had opened it
    const std::string script =
        "import socket; s = socket.socket(socket.AF_UNIX); s.connect('/home/orders'); print(s.makefile().read())";
    Tool other("setpriv",
               {"--reuid=65534", "--regid=65534", "--clear-groups", "env", "PATH=/usr/bin", "python3", "-c", script});
    other.Finish();
    EXPECT_TRUE(IsRefused(other.out().substr(0, other.out().find('\n') + 1), "only the daemon's user and root"))
        << other.err();
    EXPECT_TRUE(IsGranted(ControlPeer("/home/orders").Ask(kWorkersOrder)));
}

TEST(ControlHarm, HundredConnectionsAtOnceAreAllServed)
{
    const auto daemon = StartDaemon();
    std::list<ControlPeer> peers;
    for (int i = 0; i < 100; ++i) {
        peers.emplace_back();
        ASSERT_TRUE(peers.back().Send(kWorkersOrder + "\n"));
    }
    while (!peers.empty()) {
        EXPECT_TRUE(IsGranted(peers.front().ReadLine()));
        peers.pop_front();
    }
}

// The daemon stands still for longer than a peer may be silent, and new peers want the places.
TEST(ControlHarm, OrdersThatCameWhileTheDaemonWasStoppedAreServed)
{
    const auto daemon = StartDaemon();
    std::list<ControlPeer> peers;
    for (int i = 0; i < 64; ++i) {
        peers.emplace_back();
        ASSERT_TRUE(IsGranted(peers.back().Ask(kWorkersOrder)));
    }
    daemon->Kill(SIGSTOP);
    for (int i = 0; i < 10; ++i) {
        peers.emplace_back();
    }
    for (const ControlPeer& peer : peers) {
        ASSERT_TRUE(peer.Send(kWorkersOrder + "\n"));
    }
    poll(nullptr, 0, 1200);
    daemon->Kill(SIGCONT);
    for (const ControlPeer& peer : peers) {
        EXPECT_TRUE(IsGranted(peer.ReadLine()));
    }
}

// They take every place, with half orders, without an order and with answers that they do not read.
TEST(ControlHarm, SilentPeersLoseTheirPlaces)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    std::list<ControlPeer> peers;
    for (int i = 0; i < 120; ++i) {
        peers.emplace_back();
        ASSERT_TRUE(i % 2 == 0 || peers.back().Send(R"({"ord)"));
    }
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    EXPECT_TRUE(daemon->WaitForOut("HEARTBEAT"));
}

TEST(ControlHarm, OneByteAtATimeHoldsNobodyUp)
{
    const auto daemon = StartDaemon();
    const ControlPeer slow;
    for (const char byte : kWorkersOrder) {
        ASSERT_TRUE(slow.Send(std::string(1, byte)));
        ASSERT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
    }
    EXPECT_TRUE(IsGranted(slow.Ask("")));
}

// What a peer does not read stays with the peer: the daemon takes its next order only after that.
TEST(ControlHarm, PeerThatNeverReadsIsNotReadEither)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    const ControlPeer deaf;
    const std::string orders = kWorkersOrder + "\n" + kWorkersOrder + "\n";
    size_t sent = 0;
    while (send(deaf.socket().get(), orders.data(), orders.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(orders.size()) &&
           sent < 100'000'000) {
        sent += orders.size();
    }
    EXPECT_LT(sent, 100'000'000U);
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

TEST(ControlHarm, PeersThatGoInTheMiddleLeaveNothing)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    const auto descriptors = [&daemon] {
        const Outcome outcome = RunTool("ls", {"/proc/" + std::to_string(daemon->pid()) + "/fd"});
        return CountOf(outcome.out, "\n");
    };
    ASSERT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
    const size_t before = descriptors();
    for (int i = 0; i < 200; ++i) {
        const ControlPeer peer;
        ASSERT_TRUE(peer.Send(i % 2 == 0 ? kWorkersOrder + "\n" + kWorkersOrder : kWorkersOrder + "\n"));
    }
    const ControlPeer waits;
    ASSERT_TRUE(waits.Send("{\"order\":\"shutdown\",\"device\":0,\"pid\":4711,\"wait\":true}\n"));
    EXPECT_TRUE(WaitUntil([&] { return descriptors() <= before + 1; }, kLimit)) << descriptors() << " " << before;
}

TEST(ControlHarm, WaitEndsWithItsPeer)
{
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    for (int i = 0; i < 100; ++i) {
        const ControlPeer peer;
        ASSERT_TRUE(peer.Send("{\"order\":\"shutdown-all\",\"wait\":true}\n"));
    }
    EXPECT_TRUE(IsGranted(ControlPeer().Ask(kWorkersOrder)));
}

}  // namespace
}  // namespace gaktest
