// Who may connect: processes of different users, against the directory and the socket of a daemon that is not root.

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "log_capture.h"
#include "ppc.h"
#include "ppc_server.h"
#include "process.h"
#include "raw_peer.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;
using gaktest::ReadPpcFrame;
using gaktest::WriteAll;

constexpr int kServerId = 19280;
constexpr uint32_t kOk = 0x1011000;
constexpr auto kWait = 20s;
constexpr char kParent[] = "/home/KrovaUser";
constexpr char kDirectory[] = "/home/KrovaUser/qel_ppc";
const std::string kSocket = gaktest::SocketPath(kServerId);

struct User {
    uid_t uid;
    gid_t gid;
    gid_t furtherGroup;
};
constexpr gid_t kDaemonGroup = 4001;
constexpr User kRoot{0, 0, 0};
constexpr User kOwner{3001, kDaemonGroup, kDaemonGroup};  // the daemon's own user
constexpr User kMember{3002, 4002, kDaemonGroup};
constexpr User kOther{3003, 4003, 4003};

bool Become(const User& user)
{
    if (user.uid != kRoot.uid &&
        (setgroups(1, &user.furtherGroup) != 0 || setresgid(user.gid, user.gid, user.gid) != 0 ||
         setresuid(user.uid, user.uid, user.uid) != 0)) {
        return false;
    }
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;  // changing the user has cleared it
}

// What a process of `user` returns.
int RunAs(const User& user, const std::function<int()>& body)
{
    constexpr int kNotThatUser = 99;
    ChildProcess child([&] { return Become(user) ? body() : kNotThatUser; });
    const gaktest::ExitStatus status = child.WaitExit(kWait);
    EXPECT_TRUE(status.ended && status.signal == 0 && status.code != kNotThatUser) << status;
    return status.code;
}

enum Outcome { kConnected = 0, kDenied = 1 };

// What a worker of `user` gets. A code of the driver when it is neither of the two.
int Connect(const User& user)
{
    return RunAs(user, [] {
        gaktest::LogCapture log;
        PpcSession* session = nullptr;
        EXPECT_EQ(ppcInit(), 0);
        const int code = drvPpcSessionConnect(kServerId, &session);
        const bool denied = log.Has(gaktest::LogSink::kWarn, "connect ppc socket error: Permission denied");
        return code == PPC_ERR_SOCKET_CONNECT && denied ? kDenied : code;
    });
}

// What a process of `user` gets that wants to listen in the daemon's place. Its endpoint ends with it.
int Listen(const User& user)
{
    return RunAs(user, [] {
        const gaktest::LogCapture log;
        PpcServerHead* server = nullptr;
        EXPECT_EQ(ppcInit(), 0);
        return drvPpcServerCreate(kServerId, &server);
    });
}

// The user of the process that a worker of `user` reaches.
uid_t ListenerSeenBy(const User& user)
{
    const auto [out, in] = gaktest::SocketPair();
    RunAs(user, [&answer = in] {
        PpcSession* session = nullptr;
        if (ppcInit() != 0 || drvPpcSessionConnect(kServerId, &session) != PPC_OK) {
            return 1;
        }
        const int descriptor = reinterpret_cast<const int*>(session)[1];  // behind the magic word
        ucred peer = {};
        socklen_t size = sizeof(peer);
        EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size), 0);
        return write(answer.get(), &peer.uid, sizeof(peer.uid)) == sizeof(peer.uid) ? 0 : 2;
    });
    uid_t uid = 0;
    EXPECT_TRUE(gaktest::WaitReadable(out, 0s)) << "the worker reaches nobody";
    EXPECT_EQ(recv(out.get(), &uid, sizeof(uid), MSG_DONTWAIT), static_cast<ssize_t>(sizeof(uid)));
    return uid;
}

// A daemon in a process of its own. It answers a worker's START_RSP with the order to shut down.
class Daemon {
public:
    Daemon(const User& user, mode_t mask)
        : ends_(gaktest::SocketPair()), process_([this, &user, mask] { return Run(user, mask); })
    {
        char byte = 0;
        EXPECT_TRUE(gaktest::WaitReadable(ends_.first, kWait));
        EXPECT_EQ(read(ends_.first.get(), &byte, 1), 1);
        EXPECT_EQ(byte, 'r');
    }

private:
    int Run(const User& user, mode_t mask)
    {
        const bool runs = Become(user) && Start(mask);
        EXPECT_EQ(write(ends_.second.get(), runs ? "r" : "x", 1), 1);
        if (!runs) {
            return 1;
        }
        for (;;) {
            pause();
        }
    }
    static bool Start(mode_t mask)
    {
        umask(mask);
        qel::PpcServer& server = qel::PpcServer::GetInstance();
        server.RegPPCSerMsgProcFunc(qel::PPCMessage::START_RSP, [](const qel::PPCMessage& msg) {
            qel::PPCMessage order;
            order.set_type(qel::PPCMessage::SHUTDOWN);
            order.set_dest_id(msg.src_id());
            order.set_sub_proc_pid(msg.sub_proc_pid());
            qel::PpcServer::GetInstance().SendData(order);
        });
        return ppcInit() == 0 && server.CreateServer(kServerId) == kOk;
    }

    std::pair<Fd, Fd> ends_;
    ChildProcess process_;
};

struct stat StatusOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t ModeOf(const std::string& path)
{
    return StatusOf(path).st_mode & 07777;
}

// A folder of that mode whatever the umask is.
void MakeFolder(const char* path, mode_t mode, const User& owner)
{
    ASSERT_EQ(mkdir(path, mode), 0);
    ASSERT_EQ(chmod(path, mode), 0);
    ASSERT_EQ(chown(path, owner.uid, owner.gid), 0);
}

class AccessTest : public testing::Test {
protected:
    // The parent belongs to the daemon's user, as its installation leaves it.
    void SetUp() override
    {
        ChildProcess probe([] { return Become(kOther) ? 0 : 1; });
        if (!probe.WaitExit(kWait).ExitedWith(0)) {
            GTEST_SKIP() << "this user cannot become another one";
        }
        ASSERT_EQ(chown(kParent, kOwner.uid, kOwner.gid), 0);
    }
};

// ---- The matrix ----

struct AccessCase {
    const char* name;
    std::optional<mode_t> existing;  // of a directory that is there before the daemon
    mode_t mask;
    mode_t directory;
    mode_t socket;
    Outcome owner;
    Outcome member;
    Outcome other;
};

std::ostream& operator<<(std::ostream& out, const AccessCase& param)
{
    return out << param.name;
}

class MatrixTest : public AccessTest, public testing::WithParamInterface<AccessCase> {};

TEST_P(MatrixTest, SaysWhoConnects)
{
    if (GetParam().existing.has_value()) {
        ASSERT_NO_FATAL_FAILURE(MakeFolder(kDirectory, *GetParam().existing, kOwner));
    }
    const Daemon daemon(kOwner, GetParam().mask);
    EXPECT_EQ(ModeOf(kDirectory), GetParam().directory);
    EXPECT_EQ(ModeOf(kSocket), GetParam().socket);
    for (const std::string& path : {std::string(kDirectory), kSocket}) {
        EXPECT_EQ(StatusOf(path).st_uid, kOwner.uid);
        EXPECT_EQ(StatusOf(path).st_gid, kDaemonGroup);
    }
    EXPECT_EQ(Connect(kOwner), GetParam().owner);
    EXPECT_EQ(Connect(kMember), GetParam().member);
    EXPECT_EQ(Connect(kOther), GetParam().other);
    EXPECT_EQ(Connect(kRoot), kConnected);
}

INSTANTIATE_TEST_SUITE_P(Made, MatrixTest,
                         testing::Values(AccessCase{"Umask022", {}, 022, 0350, 0755, kConnected, kDenied, kDenied},
                                         AccessCase{"Umask007", {}, 007, 0350, 0770, kConnected, kConnected, kDenied},
                                         AccessCase{"Umask077", {}, 077, 0300, 0700, kConnected, kDenied, kDenied},
                                         AccessCase{"Umask000", {}, 000, 0350, 0777, kConnected, kConnected, kDenied}),
                         [](const testing::TestParamInfo<AccessCase>& param) { return param.param.name; });

INSTANTIATE_TEST_SUITE_P(Existing0755, MatrixTest,
                         testing::Values(AccessCase{"Umask022", 0755, 022, 0755, 0755, kConnected, kDenied, kDenied},
                                         AccessCase{"Umask007", 0755, 007, 0755, 0770, kConnected, kConnected, kDenied},
                                         AccessCase{"Umask077", 0755, 077, 0755, 0700, kConnected, kDenied, kDenied},
                                         AccessCase{"Umask000", 0755, 000, 0755, 0777, kConnected, kConnected,
                                                    kConnected}),
                         [](const testing::TestParamInfo<AccessCase>& param) { return param.param.name; });

INSTANTIATE_TEST_SUITE_P(Existing0750, MatrixTest,
                         testing::Values(AccessCase{"Umask022", 0750, 022, 0750, 0755, kConnected, kDenied, kDenied},
                                         AccessCase{"Umask007", 0750, 007, 0750, 0770, kConnected, kConnected, kDenied},
                                         AccessCase{"Umask077", 0750, 077, 0750, 0700, kConnected, kDenied, kDenied}),
                         [](const testing::TestParamInfo<AccessCase>& param) { return param.param.name; });

// ---- Who may listen ----

TEST_F(AccessTest, GroupMemberCannotTakeTheSocketInTheLibrarysDirectory)
{
    const Daemon daemon(kOwner, 007);
    EXPECT_EQ(Listen(kMember), PPC_ERR_SOCKET_BIND);
    EXPECT_EQ(ListenerSeenBy(kMember), kOwner.uid);
}

TEST_F(AccessTest, WhoeverMayWriteToTheDirectoryTakesTheSocket)
{
    ASSERT_NO_FATAL_FAILURE(MakeFolder(kDirectory, 0777, kOwner));
    const Daemon daemon(kOwner, 022);
    EXPECT_EQ(ListenerSeenBy(kOwner), kOwner.uid);
    const Daemon impostor(kOther, 0);
    EXPECT_EQ(ListenerSeenBy(kOwner), kOther.uid);
}

TEST_F(AccessTest, WhoeverMayWriteToTheParentTakesTheDirectory)
{
    ASSERT_EQ(chmod(kParent, 0777), 0);
    const Daemon daemon(kOwner, 022);
    EXPECT_EQ(RunAs(kOther, [] { return rename(kDirectory, "/home/KrovaUser/aside"); }), 0);
    const Daemon impostor(kOther, 0);
    EXPECT_EQ(ListenerSeenBy(kRoot), kOther.uid);
}

TEST_F(AccessTest, InASharedStickyDirectoryTheFirstToListenStays)
{
    ASSERT_NO_FATAL_FAILURE(MakeFolder(kDirectory, 01777, kRoot));
    {
        const Daemon daemon(kOwner, 022);
        EXPECT_EQ(Listen(kOther), PPC_ERR_SOCKET_BIND);
        EXPECT_EQ(ListenerSeenBy(kOwner), kOwner.uid);
    }
    ASSERT_EQ(unlink(kSocket.c_str()), 0);
    EXPECT_EQ(Listen(kOther), PPC_OK);
    EXPECT_EQ(Listen(kOwner), PPC_ERR_SOCKET_BIND);  // the name is still there although nobody listens any more
}

TEST_F(AccessTest, FirstToMakeTheDirectoryOwnsItAndMayKeepTheDaemonOut)
{
    ASSERT_EQ(chmod(kParent, 01777), 0);
    EXPECT_EQ(RunAs(kMember, [] { return ppcInit(); }), 0);
    EXPECT_EQ(StatusOf(kDirectory).st_uid, kMember.uid);
    EXPECT_EQ(Listen(kOwner), PPC_ERR_SOCKET_BIND);
}

TEST_F(AccessTest, LinkInTheDirectorysPlaceIsFollowed)
{
    ASSERT_NO_FATAL_FAILURE(MakeFolder("/home/elsewhere", 0755, kOwner));
    ASSERT_EQ(symlink("/home/elsewhere", kDirectory), 0);
    const Daemon daemon(kOwner, 022);
    EXPECT_TRUE(S_ISSOCK(StatusOf("/home/elsewhere/sock_server_19280").st_mode));
    EXPECT_EQ(Connect(kOwner), kConnected);
}

// ---- When it is decided ----

TEST_F(AccessTest, OpenConnectionOutlivesAChangeOfTheModes)
{
    const Daemon daemon(kOwner, 022);
    EXPECT_EQ(RunAs(kOwner,
                    [] {
                        const Fd worker = gaktest::RawConnect(kServerId);
                        EXPECT_EQ(chmod(kSocket.c_str(), 0), 0);
                        EXPECT_EQ(chmod(kDirectory, 0), 0);
                        EXPECT_TRUE(WriteAll(worker, gaktest::PpcFrame({0, 1, kServerId, 0, 7, 0, {}})));
                        return ReadPpcFrame(worker, kWait) == gaktest::RawMessage{5, 0, 1, 0, 7, 0, {}} ? 0 : 1;
                    }),
              0);
    EXPECT_EQ(Connect(kOwner), kDenied);
}

}  // namespace
