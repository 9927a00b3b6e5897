#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "tool.h"

namespace gaktest {
namespace {

const std::string kDir = "/home/KrovaUser/qel_ppc";
const std::string kSock = kDir + "/sock_server_19280";

// Whether the doctor finds this fault, names a repair and tells by its exit status.
testing::AssertionResult Finds(const std::string& check, const std::string& repair)
{
    const Outcome outcome = Ctl({"doctor", "--json"});
    const bool named = outcome.out.find("\"check\":\"" + check + "\"") != std::string::npos;
    const bool repaired = outcome.out.find(repair) != std::string::npos;
    if (!outcome.status.ExitedWith(1) || !named || !repaired) {
        return testing::AssertionFailure() << outcome.status << "\n" << outcome.out << outcome.err;
    }
    return FitsSchema(outcome.out, "doctor");
}

// A machine on which a daemon runs as it should; each test breaks one thing.
class Doctor : public testing::Test {
protected:
    Doctor() { chmod(kDir.c_str(), 0350); }

    Fd listener_ = RawListen(kServer);
};

TEST_F(Doctor, HealthyMachineHasNoFault)
{
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.status << outcome.out;
    EXPECT_EQ(outcome.out, "no faults; a daemon runs\n");
    EXPECT_EQ(Ctl({"doctor", "--json"}).out, "");
}

TEST_F(Doctor, AllShowsWhatIsWell)
{
    const Outcome outcome = Ctl({"doctor", "--all", "--json"});
    EXPECT_TRUE(outcome.status.ExitedWith(0));
    EXPECT_TRUE(FitsSchema(outcome.out, "doctor"));
    EXPECT_NE(outcome.out.find("process " + std::to_string(getpid()) + " listens"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("\"check\":\"limits\""), std::string::npos);
    EXPECT_NE(outcome.out.find("\"check\":\"versions\""), std::string::npos);
}

TEST_F(Doctor, DaemonIsNotDisturbed)
{
    Ctl({"doctor", "--all"});
    EXPECT_FALSE(WaitReadable(listener_, std::chrono::milliseconds(50))) << "the doctor has connected";
}

TEST(DoctorAlone, NoDaemonAndNoFaultHasAnExitStatusOfItsOwn)
{
    mkdir(kDir.c_str(), 0350);
    const Outcome outcome = Ctl({"doctor"});
    EXPECT_TRUE(outcome.status.ExitedWith(3)) << outcome.out;
    EXPECT_EQ(outcome.out, "no faults; no daemon runs\n");
}

TEST(DoctorAlone, MissingParentIsFound)
{
    ASSERT_EQ(rmdir("/home/KrovaUser"), 0);
    EXPECT_TRUE(Finds("parent", "install -d -m 0755 /home/KrovaUser"));
}

TEST(DoctorAlone, FileInTheParentsPlaceIsFound)
{
    ASSERT_EQ(rmdir("/home/KrovaUser"), 0);
    ASSERT_EQ(mknod("/home/KrovaUser", S_IFREG | 0644, 0), 0);
    EXPECT_TRUE(Finds("parent", "move /home/KrovaUser away"));
}

TEST_F(Doctor, ParentThatAnybodyMayWriteToIsFound)
{
    ASSERT_EQ(chmod("/home/KrovaUser", 0777), 0);
    EXPECT_TRUE(Finds("parent", "chmod o-w /home/KrovaUser"));
    ASSERT_EQ(chmod("/home/KrovaUser", 01777), 0);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0)) << "in a sticky directory only owners replace their files";
}

TEST(DoctorAlone, MissingDirectoryIsFound)
{
    EXPECT_TRUE(Finds("directory", "install -d -m 0350"));
}

TEST(DoctorAlone, FileInTheDirectorysPlaceIsFound)
{
    ASSERT_EQ(mknod(kDir.c_str(), S_IFREG | 0644, 0), 0);
    EXPECT_TRUE(Finds("directory", "rm " + kDir));
}

TEST(DoctorAlone, LinkInTheDirectorysPlaceIsFound)
{
    ASSERT_EQ(mkdir("/home/elsewhere", 0350), 0);
    ASSERT_EQ(symlink("/home/elsewhere", kDir.c_str()), 0);
    EXPECT_TRUE(Finds("directory link", "rm " + kDir));
}

TEST_F(Doctor, DirectoryThatAnybodyMayWriteToIsFound)
{
    ASSERT_EQ(chmod(kDir.c_str(), 0777), 0);
    EXPECT_TRUE(Finds("directory mode", "chmod 0350"));
}

TEST_F(Doctor, DirectoryClosedToItsOwnerIsFound)
{
    ASSERT_EQ(chmod(kDir.c_str(), 0050), 0);
    EXPECT_TRUE(Finds("directory mode", "chmod 0350"));
}

TEST_F(Doctor, UmaskThatKeepsTheGroupOutOfTheDirectoryIsFound)
{
    ASSERT_EQ(chmod(kDir.c_str(), 0300), 0);
    EXPECT_TRUE(Finds("directory umask", "umask 0022"));
}

TEST_F(Doctor, DirectoryOfAnotherUserIsFound)
{
    if (!MapsOtherUsers()) {
        GTEST_SKIP() << "an ordinary user's namespace has no second user";
    }
    ASSERT_EQ(chown(kDir.c_str(), 1234, 0), 0);
    EXPECT_TRUE(Finds("directory owner", "chown 0"));
}

TEST_F(Doctor, SocketOfAnotherUserIsFound)
{
    if (!MapsOtherUsers()) {
        GTEST_SKIP() << "an ordinary user's namespace has no second user";
    }
    ASSERT_EQ(chown(kSock.c_str(), 1234, 0), 0);
    EXPECT_TRUE(Finds("socket owner", "chown 0"));
}

TEST_F(Doctor, UmaskThatClosesTheSocketIsFound)
{
    ASSERT_EQ(chmod(kSock.c_str(), 0555), 0);
    EXPECT_TRUE(Finds("socket umask", "chmod u+w"));
}

TEST_F(Doctor, StaleSocketIsFound)
{
    listener_.Reset();
    EXPECT_TRUE(Finds("stale socket", "rm " + kSock));
}

TEST_F(Doctor, RemovedSocketOfARunningDaemonIsFound)
{
    ASSERT_EQ(unlink(kSock.c_str()), 0);
    EXPECT_TRUE(Finds("socket", "restart the daemon"));
}

TEST_F(Doctor, FileInTheSocketsPlaceIsFound)
{
    ASSERT_EQ(unlink(kSock.c_str()), 0);
    ASSERT_EQ(mknod(kSock.c_str(), S_IFREG | 0644, 0), 0);
    EXPECT_TRUE(Finds("socket", "rm -r " + kSock));
}

TEST_F(Doctor, LinkInTheSocketsPlaceIsFound)
{
    ASSERT_EQ(unlink(kSock.c_str()), 0);
    ASSERT_EQ(symlink("/home/elsewhere", kSock.c_str()), 0);
    EXPECT_TRUE(Finds("socket link", "rm -r " + kSock));
}

TEST_F(Doctor, SecondDaemonIsFound)
{
    const Fd second = RawListen(kServer);
    EXPECT_TRUE(Finds("daemon", "end all but one"));
}

TEST_F(Doctor, LowDescriptorLimitIsFound)
{
    const rlimit low{32, 32};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_TRUE(Finds("limits", "prlimit --pid " + std::to_string(getpid())));
}

TEST_F(Doctor, DescriptorsThatAreNearlyUsedUpAreFound)
{
    const rlimit limit{100, 100};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0));
    std::vector<Fd> used;
    for (int fd = 0; fd < 90;) {
        used.emplace_back(fd = open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_NE(fd, -1);
    }
    EXPECT_TRUE(Finds("limits", "prlimit --pid " + std::to_string(getpid())));
}

// A new network knows none of this machine's sockets, so the daemon listens there.
TEST(DoctorAlone, ShortQueueForNewWorkersIsFound)
{
    if (unshare(CLONE_NEWNET) == -1) {
        GTEST_SKIP() << "a network of one's own is not permitted here";
    }
    mkdir(kDir.c_str(), 0350);
    const Fd listener = RawListen(kServer);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0));
    if (!(std::ofstream("/proc/sys/net/core/somaxconn") << 4 << std::flush)) {
        GTEST_SKIP() << "the system's settings cannot be changed here";
    }
    EXPECT_TRUE(Finds("limits", "sysctl -w net.core.somaxconn=4096"));
}

// An upgrade puts another file in the library's place; the daemon keeps the old one mapped.
TEST_F(Doctor, ReplacedLibraryOfARunningDaemonIsFound)
{
    const std::string library = "/home/libgakppc.so.1.0.0";
    std::ofstream(library) << "old";
    const Fd file(open(library.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_NE(mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, file.get(), 0), MAP_FAILED);
    EXPECT_NE(Ctl({"doctor", "--all"}).out.find(library), std::string::npos);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0));

    std::ofstream(library + ".new") << "new";
    ASSERT_EQ(rename((library + ".new").c_str(), library.c_str()), 0);
    EXPECT_TRUE(Finds("versions", "restart the daemon"));
    EXPECT_NE(Ctl({"doctor"}).out.find(library + " (deleted)"), std::string::npos);
}

TEST_F(Doctor, TextNamesTheRepairBelowTheFault)
{
    listener_.Reset();
    const std::string out = Ctl({"doctor"}).out;
    EXPECT_EQ(out, "fault stale socket: nobody listens at " + kSock +
                       ": its daemon has ended\n"
                       "       repair: start the daemon, which replaces it, or: rm " +
                       kSock + "\n");
}

TEST_F(Doctor, RepairOfAKilledTapBringsTheDaemonBack)
{
    {
        Tool tap(kGakppctl, {"tap"});
        ASSERT_TRUE(tap.WaitForErr("in place"));
        tap.Kill(SIGKILL);
        tap.Finish();
    }
    const std::string repair = "mv -fT " + kSock + ".tap " + kSock;
    EXPECT_TRUE(Finds("tap leftover", repair));
    RawAccept(listener_, kLimit);  // which of the files is the daemon's cannot be told without asking
    ASSERT_EQ(system(repair.c_str()), 0);
    EXPECT_TRUE(Ctl({"doctor"}).status.ExitedWith(0));
    const Fd worker = RawConnect(kServer);
    EXPECT_TRUE(worker.valid());
    EXPECT_TRUE(RawAccept(listener_, kLimit).valid());
}

TEST_F(Doctor, LeftoverThatIsNotTheDaemonsIsToBeRemoved)
{
    ASSERT_EQ(rename(kSock.c_str(), (kSock + ".keep").c_str()), 0);
    RawListen(kServer);
    ASSERT_EQ(rename(kSock.c_str(), (kSock + ".tap").c_str()), 0);
    ASSERT_EQ(rename((kSock + ".keep").c_str(), kSock.c_str()), 0);
    EXPECT_TRUE(Finds("tap leftover", "rm " + kSock + ".tap"));
}

TEST_F(Doctor, RunningTapIsNoFault)
{
    Tool tap(kGakppctl, {"tap"});
    ASSERT_TRUE(tap.WaitForErr("in place"));
    const Outcome outcome = Ctl({"doctor", "--all"});
    EXPECT_TRUE(outcome.status.ExitedWith(0)) << outcome.out;
    EXPECT_NE(outcome.out.find("a tap holds the place"), std::string::npos);
    tap.Kill(SIGTERM);
    EXPECT_TRUE(tap.Finish().ExitedWith(0));
}

}  // namespace
}  // namespace gaktest
