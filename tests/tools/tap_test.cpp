#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tap_fixture.h"

namespace gaktest {
namespace {

// The names in the socket directory, one a line.
std::string Files()
{
    std::string names;
    for (const auto& entry : std::filesystem::directory_iterator(kSock.substr(0, kSock.rfind('/')))) {
        names += entry.path().filename().string() + "\n";
    }
    return names;
}

TEST_F(TapTest, ShowsBothDirectionsWithTheRealProcessBesideTheClaimedOne)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2, 1, 999999))));
    EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2, 1, 999999));
    ASSERT_TRUE(WriteAll(daemon_, PpcFrame(FromWorker(5))));
    EXPECT_EQ(ReadPpcFrame(worker_, kLimit), FromWorker(5));
    const std::string self = "pid " + std::to_string(getpid()) + " uid 0 ";
    EXPECT_TRUE(
        tap_->WaitForOut("#1 -> " + self + "HEARTBEAT (claims pid 999999) {\"type\":\"HEARTBEAT\",\"src_id\":1,"));
    EXPECT_TRUE(tap_->WaitForOut("#1 <- " + self + "SHUTDOWN {"));
}

TEST_F(TapTest, JsonFitsItsSchema)
{
    ASSERT_NO_FATAL_FAILURE(Start({"--json", "--hex"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2))));
    ASSERT_TRUE(WriteAll(worker_, {0, 0, 0, 0, 0xFF}));
    ReadExactly(daemon_, PpcFrame(FromWorker(2)).size() + 5, kLimit);
    Disconnect();
    ASSERT_TRUE(tap_->WaitForOut("\"event\":\"close\""));
    EXPECT_EQ(CountOf(tap_->out(), "\n"), 5u) << tap_->out();
    EXPECT_TRUE(FitsSchema(tap_->out(), "record"));
}

TEST_F(TapTest, SocketKeepsItsModeAndOwner)
{
    const uid_t uid = MapsOtherUsers() ? 1234 : 0;
    const gid_t gid = MapsOtherUsers() ? 4321 : 0;
    ASSERT_EQ(chown(kSock.c_str(), uid, gid), 0);
    ASSERT_EQ(chmod(kSock.c_str(), 0770), 0);
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(FileAt(kSock).st_mode & 07777, 0770u);
    EXPECT_EQ(FileAt(kSock).st_uid, uid);
    EXPECT_EQ(FileAt(kSock).st_gid, gid);
}

class TapSignal : public TapTest, public testing::WithParamInterface<int> {};

TEST_P(TapSignal, RestoresTheSocket)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    tap_->Kill(GetParam());
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_TRUE(SocketIsRestored());
    const Fd worker = RawConnect(kServer);
    EXPECT_TRUE(RawAccept(listener_, kLimit).valid());
}

INSTANTIATE_TEST_SUITE_P(Signals, TapSignal, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(TapTest, CountEndsIt)
{
    ASSERT_NO_FATAL_FAILURE(Start({"--count", "2"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2))));
        EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2));
    }
    EXPECT_TRUE(WaitUntil([this] { return SocketIsRestored(); }, kLimit));
    Disconnect();
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_EQ(CountOf(tap_->out(), "\"type\":\"HEARTBEAT\""), 2u) << tap_->out();
}

TEST_F(TapTest, ReaderThatLeavesEndsIt)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    tap_->CloseOutput();
    ASSERT_NO_FATAL_FAILURE(Connect());
    ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2))));
    EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2));
    EXPECT_TRUE(WaitUntil([this] { return SocketIsRestored(); }, kLimit));
    Disconnect();
    EXPECT_TRUE(tap_->Finish().ExitedWith(1));
    EXPECT_EQ(tap_->err().find("Broken pipe"), std::string::npos) << "the reader knows that it has left";
}

TEST_F(TapTest, ReaderThatPausesHoldsNobodyUp)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    const Bytes frame = PpcFrame(FromWorker(2));
    for (int i = 0; i < 5000; ++i) {  // far more text than a pipe holds
        ASSERT_TRUE(WriteAll(worker_, frame));
        ASSERT_TRUE(ReadPpcFrame(daemon_, kLimit).has_value()) << i;
    }
    tap_->Kill(SIGINT);
    EXPECT_TRUE(WaitUntil([this] { return SocketIsRestored(); }, kLimit));
}

TEST_F(TapTest, OpenConnectionsFlowOnAfterItHasStopped)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    tap_->Kill(SIGINT);
    ASSERT_TRUE(tap_->WaitForErr("1 open connection(s) still lead through the tap"));
    EXPECT_TRUE(SocketIsRestored());
    ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2))));
    EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2));
    Disconnect();
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
}

TEST_F(TapTest, SecondSignalCutsThem)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    tap_->Kill(SIGINT);
    ASSERT_TRUE(tap_->WaitForErr("still lead through the tap"));
    tap_->Kill(SIGINT);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0));
    EXPECT_TRUE(tap_->err().find("1 connection(s) cut") != std::string::npos) << tap_->err();
    EXPECT_TRUE(ExpectEof(worker_, kLimit));
    EXPECT_TRUE(ExpectEof(daemon_, kLimit));
}

TEST_F(TapTest, LingerLimitsTheWait)
{
    ASSERT_NO_FATAL_FAILURE(Start({"--linger", "0.1"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    tap_->Kill(SIGINT);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0));
    EXPECT_TRUE(tap_->err().find("1 connection(s) cut") != std::string::npos) << tap_->err();
    EXPECT_TRUE(ExpectEof(worker_, kLimit));
}

// Not by Start, which looks for the tap's socket: by then this one may have gone.
TEST_F(TapTest, TimeEndsIt)
{
    daemonFile_ = FileAt(kSock);
    for (const char* time : {"0", "0.1"}) {
        const Outcome outcome = Ctl({"tap", "--for", time});
        EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status;
        EXPECT_NE(outcome.err.find("in place"), std::string::npos) << outcome.err;
        EXPECT_TRUE(SocketIsRestored());
    }
}

TEST_F(TapTest, SocketOfARestartedDaemonStays)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const Fd next = RawListen(kServer);
    const ino_t inode = FileAt(kSock).st_ino;
    EXPECT_TRUE(tap_->Finish().ExitedWith(1));
    EXPECT_EQ(FileAt(kSock).st_ino, inode);
    EXPECT_EQ(access(kSavedSock.c_str(), F_OK), -1);
}

TEST_F(TapTest, FiltersDecideWhatIsShownWrittenAndCounted)
{
    ASSERT_NO_FATAL_FAILURE(
        Start({"--count", "2", "--write", "/home/trace.pcap", "--device", "1", "--pid", "4711", "--worker", "5",
               "--type", "Compute", "--message", "heartbeat", "--message", "ABNORMAL"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    for (const RawMessage& message : {FromWorker(0, 1), FromWorker(2, 0), FromWorker(2, 1), FromWorker(2, 1, 4712),
                                      FromWorker(4, 1), FromWorker(2, 1)}) {
        ASSERT_TRUE(WriteAll(worker_, PpcFrame(message)));
        EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), message) << "everything is forwarded";
    }
    EXPECT_TRUE(WaitUntil([this] { return SocketIsRestored(); }, kLimit));
    Disconnect();
    ASSERT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_EQ(CountOf(tap_->out(), "\n"), 2U) << tap_->out();
    EXPECT_EQ(CountOf(tap_->out(), "HEARTBEAT (claims pid 4711)"), 1U) << tap_->out();
    EXPECT_EQ(CountOf(tap_->out(), "ABNORMAL (claims pid 4711)"), 1U);
    EXPECT_EQ(Ctl({"decode", "/home/trace.pcap"}).out, tap_->out());
}

TEST_F(TapTest, SecondTapIsRefused)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const Outcome second = Ctl({"tap"});
    EXPECT_TRUE(second.status.ExitedWith(1)) << second.status;
    EXPECT_NE(second.err.find("another tap is in place"), std::string::npos) << second.err;
    EXPECT_EQ(access(kSavedSock.c_str(), F_OK), 0);
}

TEST_F(TapTest, SecondTapIsRefusedAlsoWhenTheDaemonHasEnded)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    listener_.Reset();
    const Outcome second = Ctl({"tap"});
    EXPECT_TRUE(second.status.ExitedWith(1)) << second.status;
    EXPECT_NE(second.err.find("another tap is in place"), std::string::npos) << second.err;
    EXPECT_EQ(access(kSavedSock.c_str(), F_OK), 0);
    tap_->Kill(SIGTERM);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0));
    EXPECT_TRUE(SocketIsRestored());
}

// The listener stays shut down in the loop of the tap, which must not spin.
TEST_F(TapTest, WorkersFindNoDaemonOnceTheDaemonBehindItHasEnded)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    Connect();
    Disconnect();
    listener_.Reset();
    ASSERT_TRUE(tap_->WaitForErr("the daemon has ended; workers that connect are refused, as without a tap\n"));
    EXPECT_FALSE(RawConnect(kServer).valid());
    const Outcome worker = Ctl({"worker", "--timeout", "60"});
    EXPECT_TRUE(worker.status.ExitedWith(3)) << worker.status << worker.err;
    const long before = TimesAsleep(tap_->pid());
    EXPECT_TRUE(WaitUntil([&] { return TimesAsleep(tap_->pid()) > before + 3; }, kLimit)) << "it spins";
    tap_->Kill(SIGTERM);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0));
    EXPECT_EQ(CountOf(tap_->err(), "the daemon has ended"), 1U);
    EXPECT_EQ(CountOf(tap_->err(), "no daemon: "), 0U);
    EXPECT_TRUE(SocketIsRestored());
}

class KilledTapTest : public TapTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(Start());
        tap_->Kill(SIGKILL);
        ASSERT_TRUE(tap_->Finish().KilledBy(SIGKILL));
        ASSERT_EQ(access(kSavedSock.c_str(), F_OK), 0);
        restored_ = daemonFile_;
    }

    struct stat restored_ {};
};

TEST_F(KilledTapTest, NextTapRestoresTheDaemonsSocket)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(FileAt(kSavedSock).st_ino, restored_.st_ino) << "what it keeps is the daemon's";
    EXPECT_NE(tap_->err().find("restored " + kSock), std::string::npos) << tap_->err();
    ASSERT_NO_FATAL_FAILURE(Connect());
    tap_->Kill(SIGTERM);
    Disconnect();
    EXPECT_TRUE(tap_->Finish().ExitedWith(0));
    EXPECT_EQ(FileAt(kSock).st_ino, restored_.st_ino);
    EXPECT_EQ(CountOf(Files(), "sock_server"), 1U) << Files();
}

TEST_F(KilledTapTest, NextTapRemovesWhatNobodyIsBehind)
{
    listener_.Reset();
    const Outcome next = Ctl({"tap"});
    EXPECT_TRUE(next.status.ExitedWith(3)) << next.status;
    EXPECT_NE(next.err.find("removed " + kSavedSock), std::string::npos) << next.err;
    EXPECT_EQ(Files(), "sock_server_19280\n");
}

TEST_F(KilledTapTest, NextDaemonRemovesWhatNobodyIsBehind)
{
    listener_.Reset();
    const Outcome daemon = RunTool(kGakppcd, {"--for", "0.1"});
    EXPECT_TRUE(daemon.status.ExitedWith(0)) << daemon.status;
    EXPECT_NE(daemon.err.find("removed " + kSavedSock), std::string::npos) << daemon.err;
    EXPECT_EQ(Files(), "sock_server_19280\n");
}

TEST_F(KilledTapTest, NextDaemonLeavesWhatIsInUse)
{
    EXPECT_TRUE(RunTool(kGakppcd, {"--for", "0.1"}).status.ExitedWith(1)) << "another daemon runs";
    EXPECT_TRUE(RunTool(kGakppcd, {"--for", "0.1", "--replace"}).status.ExitedWith(0));
    EXPECT_EQ(FileAt(kSavedSock).st_ino, restored_.st_ino);
}

TEST_F(KilledTapTest, TwoDaemonsAreLeftAlone)
{
    const Fd second = RawListen(kServer);
    const ino_t inode = FileAt(kSock).st_ino;
    const Outcome next = Ctl({"tap"});
    EXPECT_TRUE(next.status.ExitedWith(1)) << next.status;
    EXPECT_NE(next.err.find("are both in use"), std::string::npos) << next.err;
    EXPECT_EQ(FileAt(kSock).st_ino, inode);
    EXPECT_EQ(FileAt(kSavedSock).st_ino, restored_.st_ino);
}

TEST_F(TapTest, SocketThatWasRemovedIsRestored)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(unlink(kSock.c_str()), 0);
    EXPECT_TRUE(tap_->Finish().ExitedWith(1));
    EXPECT_TRUE(SocketIsRestored());
}

class FollowTest : public TapTest {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(Start({"--follow"})); }

    void StartDaemonAgain()
    {
        listener_.Reset();
        const size_t before = CountOf(tap_->err(), "in place again");
        listener_ = RawListen(kServer);
        ASSERT_TRUE(tap_->WaitUntilOutput([&] { return CountOf(tap_->err(), "in place again") > before; }, kLimit))
            << tap_->err();
        daemonFile_ = FileAt(kSavedSock);
    }
};

TEST_F(FollowTest, TakesTheSocketOfEachNewDaemon)
{
    for (uint32_t i = 1; i <= 3; ++i) {
        ASSERT_NO_FATAL_FAILURE(StartDaemonAgain());
        ASSERT_NO_FATAL_FAILURE(Connect());
        ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(2, 1, i))));
        EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2, 1, i));
        EXPECT_TRUE(tap_->WaitForOut("HEARTBEAT (claims pid " + std::to_string(i) + ")"));
        Disconnect();
    }
    tap_->Kill(SIGTERM);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_TRUE(SocketIsRestored());
}

TEST_F(FollowTest, ServesAgainAfterItHasRefused)
{
    listener_.Reset();
    ASSERT_TRUE(tap_->WaitForErr("the daemon has ended"));
    EXPECT_FALSE(RawConnect(kServer).valid());
    ASSERT_NO_FATAL_FAILURE(StartDaemonAgain());
    ASSERT_NO_FATAL_FAILURE(Connect());
    Disconnect();
    listener_.Reset();
    EXPECT_TRUE(tap_->WaitUntilOutput([&] { return CountOf(tap_->err(), "the daemon has ended") == 2; }, kLimit));
}

TEST_F(FollowTest, EndsOrderlyWhileNoDaemonRuns)
{
    listener_.Reset();
    tap_->Kill(SIGINT);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_TRUE(SocketIsRestored());
}

TEST_F(FollowTest, EndsOrderlyWhileItsPlaceIsEmpty)
{
    listener_.Reset();
    ASSERT_EQ(unlink(kSock.c_str()), 0);
    EXPECT_FALSE(tap_->WaitUntilOutput([] { return false; }, std::chrono::seconds(2))) << "it ends";
    tap_->Kill(SIGINT);
    EXPECT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    EXPECT_EQ(Files(), "");
}

TEST(TapStandaloneTest, NoDaemonIsTold)
{
    const Outcome outcome = Ctl({"tap"});
    EXPECT_TRUE(outcome.status.ExitedWith(3));
    EXPECT_EQ(outcome.err, "gakppctl: no daemon listens at " + kSock + ": No such file or directory\n");
    EXPECT_EQ(RawListen(kServer).valid(), true);  // and closes it
    EXPECT_EQ(Ctl({"tap"}).err, "gakppctl: no daemon listens at " + kSock + "\n");
}

TEST_F(TapTest, UserWhoMayNotLookForADaemonIsToldSo)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    ASSERT_EQ(chmod("/home/KrovaUser/qel_ppc", 0350), 0);
    const auto tap = StartCtlAsNobody({"tap"});
    EXPECT_TRUE(tap->Finish().ExitedWith(1)) << "a daemon may well listen there";
    EXPECT_EQ(tap->err(), "gakppctl: " + kSock + ": Permission denied\n");
}

TEST_F(TapTest, DaemonThatCannotBeLookedForHasNotEnded)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    ASSERT_EQ(chown("/home/KrovaUser/qel_ppc", 65534, 65534), 0);
    ASSERT_EQ(chown(kSock.c_str(), 65534, 65534), 0);
    const auto tap = StartCtlAsNobody({"tap"});
    ASSERT_TRUE(tap->WaitForErr("in place"));
    ASSERT_EQ(chown(kSavedSock.c_str(), 0, 0), 0);
    const long before = TimesAsleep(tap->pid());
    ASSERT_TRUE(WaitUntil([&] { return TimesAsleep(tap->pid()) > before + 3; }, kLimit)) << "it has looked";
    EXPECT_TRUE(RawConnect(kServer).valid()) << "workers are refused";
    EXPECT_TRUE(tap->WaitForErr("no daemon: Permission denied"));
}

TEST_F(TapTest, FileThatCannotBeWrittenIsTold)
{
    EXPECT_TRUE(Ctl({"tap", "--write", "/nowhere/trace.pcap"}).status.ExitedWith(1));
    EXPECT_EQ(access(kSavedSock.c_str(), F_OK), -1);
}

TEST_F(TapTest, CaptureIsDecodedToTheSameLines)
{
    ASSERT_NO_FATAL_FAILURE(Start({"--write", "/home/trace.pcap"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    ASSERT_TRUE(WriteAll(worker_, PpcFrame(FromWorker(0))));
    ASSERT_TRUE(ReadPpcFrame(daemon_, kLimit).has_value());
    ASSERT_TRUE(WriteAll(daemon_, {0, 0, 0, 0}));
    ReadExactly(worker_, 4, kLimit);
    Disconnect();
    tap_->Kill(SIGTERM);
    ASSERT_TRUE(tap_->Finish().ExitedWith(0)) << tap_->err();
    const Outcome decoded = Ctl({"decode", "/home/trace.pcap"});
    EXPECT_EQ(decoded.out, tap_->out());
    EXPECT_TRUE(decoded.status.ExitedWith(1)) << "the zero-length frame is malformed";
}

}  // namespace
}  // namespace gaktest
