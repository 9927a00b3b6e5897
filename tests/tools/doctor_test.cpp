// The command: its options, what it prints, its exit status, and what a daemon sees of it. What it finds is the subject
// of tests/doctor.

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "sanitizer_options.h"
#include "tool.h"

namespace gaktest {
namespace {

using namespace std::chrono_literals;

const std::string kDir = "/home/KrovaUser/qel_ppc";
const std::string kSock = kDir + "/sock_server_19280";

// A machine on which a daemon listens as it should.
class Doctor : public testing::Test {
protected:
    Doctor() { chmod(kDir.c_str(), 0350); }

    Fd listener_ = RawListen(kServer);
};

TEST_F(Doctor, ConnectionIsTheFirstLineAndAllOfWhatIsOk)
{
    if (kUnderEmulator) {
        GTEST_SKIP() << "the process has the emulator's name";
    }
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.out << outcome.err;
    EXPECT_EQ(outcome.out.find("ok      connection: user root connects to " + kSock + ": process " +
                               std::to_string(getpid()) + " (doctor_test) of user root listens\n"),
              0U)
        << outcome.out;
    EXPECT_EQ(CountOf(outcome.out, "ok "), 1U) << outcome.out;
}

TEST_F(Doctor, TerminalShowsGreenAndRed)
{
    ASSERT_EQ(chmod(kDir.c_str(), 0777), 0);
    Tool tool(kGakppctl, {"doctor"}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="});
    tool.Finish();
    EXPECT_NE(tool.out().find("\033[32mok     \033[0m connection"), std::string::npos) << tool.out();
    EXPECT_NE(tool.out().find("\033[31mfault  \033[0m directory mode"), std::string::npos) << tool.out();
}

TEST_F(Doctor, AllShowsWhatElseIsOk)
{
    EXPECT_NE(Ctl({"doctor", "--all"}).out.find("ok      limits: process "), std::string::npos);
}

TEST_F(Doctor, OneSessionWithoutAByteReachesTheDaemon)
{
    Ctl({"doctor", "--all"});
    const Fd session = RawAccept(listener_, kLimit);
    ASSERT_TRUE(session.valid());
    EXPECT_TRUE(ExpectEof(session, kLimit));
    EXPECT_FALSE(WaitReadable(listener_, 0s)) << "a second connection";
}

TEST_F(Doctor, TapSeesNothingAtTheSavedPath)
{
    Tool tap(kGakppctl, {"tap"});
    ASSERT_TRUE(tap.WaitForErr("in place"));
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.out;
    EXPECT_NE(outcome.out.find("note    tap: a tap passes everything on"), std::string::npos) << outcome.out;
    EXPECT_TRUE(RawAccept(listener_, kLimit).valid()) << "the tap passes the connection on";
    EXPECT_FALSE(WaitReadable(listener_, 0s)) << "a second connection";
}

TEST_F(Doctor, JsonFitsItsSchema)
{
    EXPECT_TRUE(FitsSchema(Ctl({"doctor", "--all", "--json"}).out, "doctor"));
    ASSERT_EQ(chmod(kDir.c_str(), 0777), 0);
    const Outcome outcome = Ctl({"doctor", "--json"});
    EXPECT_NE(outcome.out.find("\"repair\":\"chmod o-w " + kDir + "\""), std::string::npos) << outcome.out;
    EXPECT_TRUE(FitsSchema(outcome.out, "doctor"));
}

TEST_F(Doctor, RepairAndAdviceStandBelowTheFault)
{
    ASSERT_EQ(chmod(kDir.c_str(), 0777), 0);
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(
        outcome.out.find("fault   directory mode: " + kDir +
                         " (mode 0777, root:root): anybody may listen in the daemon's place; at present user root "
                         "does\n"
                         "        repair, as root: chmod o-w " +
                         kDir +
                         "\n"
                         "        advice: make sure that the process which listens is the daemon\n"),
        std::string::npos)
        << outcome.out;
}

TEST(DoctorAlone, NoDaemonAndNoFaultHasAnExitStatusOfItsOwn)
{
    mkdir(kDir.c_str(), 0350);
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(3)) << outcome.status;
    EXPECT_EQ(outcome.out, "note    connection: nobody listens at " + kSock + ": No such file or directory\n");
    Tool tool(kGakppctl, {"doctor"}, Tool::Output::kTerminal, {"TERM=xterm", "NO_COLOR="});
    tool.Finish();
    EXPECT_EQ(tool.out().rfind("note    connection: ", 0), 0U) << tool.out();
}

// Whether the doctor finds no fault when it has found the queue full for a while before the listener accepts.
bool FindsNoFaultWhenTheQueueGetsRoom()
{
    const Fd listener = RawListen(kServer, 0);
    const Fd waiting = RawConnect(kServer);
    Tool doctor(kGakppctl, {"doctor"});
    const bool asked = WaitUntil([&doctor] { return TimesAsleep(doctor.pid()) > 20; }, std::chrono::seconds(1));
    const bool accepted = RawAccept(listener, kLimit).valid();
    return doctor.Finish().ExitedWith(0) && asked && accepted;
}

TEST(DoctorAlone, QueueThatIsFullForAMomentIsNoFault)
{
    EXPECT_TRUE(WaitUntil(FindsNoFaultWhenTheQueueGetsRoom, kLimit)) << "on a busy machine the listener can be late";
}

TEST_F(Doctor, DescriptorsThatAreNearlyUsedUpAreAFault)
{
    std::vector<Fd> used;
    const rlimit limit{100, 100};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0));
    while (OpenDescriptors() < 91) {
        used.emplace_back(dup(listener_.get()));
        ASSERT_TRUE(used.back().valid());
    }
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.out.find("of at most 100 descriptors open"), std::string::npos) << outcome.out;
}

// ---- --user ----

TEST_F(Doctor, OwnNameIsTheSameAsNoName)
{
    EXPECT_EQ(Ctl({"doctor", "--user", "root"}).out, Ctl({"doctor"}).out);
}

TEST_F(Doctor, NameThatNobodyHasIsWrongUsage)
{
    const Outcome outcome = Ctl({"doctor", "--user", "noboby"});
    EXPECT_TRUE(outcome.status.ExitedWith(2)) << outcome.status;
    EXPECT_EQ(outcome.err, "gakppctl: there is no user noboby\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_LT(Ctl({"doctor", "--user", std::string(300, 'x')}).err.size(), 200U);
}

TEST_F(Doctor, OtherUserIsTriedAsThatUser)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    const Outcome outcome = Ctl({"doctor", "--user", "nobody"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_NE(outcome.out.find("fault   connection: user nobody may not connect to " + kSock +
                               ": Permission denied; it may not enter " + kDir + " (mode 0350, root:root)\n"),
              std::string::npos)
        << outcome.out;
    EXPECT_FALSE(WaitReadable(listener_, 0s)) << "the doctor has connected as root";
}

TEST_F(Doctor, UserThatMayNotBeTakenIsAnErrorWithoutAFinding)
{
    Tool tool("setpriv", {"--bounding-set=-setuid,-setgid", kGakppctl, "doctor", "--user", "nobody"});
    EXPECT_TRUE(tool.Finish().ExitedWith(1));
    EXPECT_EQ(tool.err(), "gakppctl: this process may not become user nobody\n");
    EXPECT_EQ(tool.out(), "");
}

TEST_F(Doctor, OnlyRootAnswersForOthers)
{
    GAKPPC_SKIP_WITHOUT_OTHER_USERS();
    const auto other = StartCtlAsNobody({"doctor", "--user", "root"});
    EXPECT_TRUE(other->Finish().ExitedWith(2)) << other->out();
    EXPECT_EQ(other->err(), "gakppctl: only root can find out what another user gets\n");
    const auto own = StartCtlAsNobody({"doctor", "--user", "nobody"});
    EXPECT_TRUE(own->Finish().ExitedWith(1)) << own->err();
    EXPECT_EQ(own->out().find("fault   connection: user nobody may not connect"), 0U) << own->out();
}

}  // namespace
}  // namespace gaktest
