#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <functional>
#include <optional>

#include "driver_test.h"
#include "tracer.h"

namespace {

using namespace gaktest;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

PpcServerHead* const kNoServer = reinterpret_cast<PpcServerHead*>(0x1234);
PpcSession* const kNoSession = reinterpret_cast<PpcSession*>(0x5678);

bool IsSocketFile(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

std::string MemsetText(int error)
{
    return std::string("memset_s error: ") + strerror(error) + ".";
}

// Makes one function of the library's imports fail while it lives, and then only.
template <typename Call, typename R>
std::shared_ptr<void> Fail(R result, int error)
{
    auto hook = std::make_shared<CountingHook<Call>>();
    hook->FailFrom(1, result, error);
    return hook;
}

struct Failure {
    const char* name;
    std::function<std::shared_ptr<void>()> inject;
    int code;
    LogSink sink;
    std::string text;
};

std::string NameOf(const testing::TestParamInfo<Failure>& failure)
{
    return failure.param.name;
}

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.name;
}

const Failure kSocketFails{"Socket", [] { return Fail<calls::Socket>(-1, EMFILE); }, 18, LogSink::kError,
                           "create ppc socket error: " + ErrnoText(EMFILE)};

Failure MallocFails(const char* text)
{
    return {"Malloc", [] { return Fail<calls::Malloc>(static_cast<void*>(nullptr), ENOMEM); }, 40, LogSink::kError,
            text};
}

const Failure kMemsetFails{"Memset", [] { return Fail<calls::MemsetS>(34, ERANGE); }, 3, LogSink::kError,
                           MemsetText(ERANGE)};

// ---- drvPpcServerCreate ----

class ServerCreateTest : public DriverTest {};

TEST_F(ServerCreateTest, ListensOnTheSocketOfItsId)
{
    const Endpoint endpoint(19280);
    EXPECT_TRUE(IsSocketFile("/home/KrovaUser/qel_ppc/sock_server_19280"));
    EXPECT_TRUE(RawConnect(19280).valid());
    const ServerView view = ViewOf(endpoint.server);
    EXPECT_TRUE(IsOpen(view.listenFd));
    EXPECT_EQ(view.link, nullptr);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(InfoLine("drvPpcServerCreate",
                                     "Ppc Server Create " + std::to_string(view.listenFd) + ", pid 19280")));
}

TEST_F(ServerCreateTest, NameOfTheSocketFollowsTheId)
{
    const Endpoint zero(0);
    const Endpoint negative(-3);
    EXPECT_TRUE(IsSocketFile("/home/KrovaUser/qel_ppc/sock_server_0"));
    EXPECT_TRUE(IsSocketFile("/home/KrovaUser/qel_ppc/sock_server_-3"));
}

TEST_F(ServerCreateTest, MakesTheSystemCallsInOrder)
{
    std::vector<std::string> order;
    CountingHook<calls::Socket> socketCalls;
    socketCalls.OnCall([&](uint64_t, int domain, int type, int protocol) -> std::optional<int> {
        order.push_back("socket " + std::to_string(domain) + " " + std::to_string(type) + " " +
                        std::to_string(protocol));
        return std::nullopt;
    });
    CountingHook<calls::Unlink> unlinkCalls;
    unlinkCalls.OnCall([&](uint64_t, const char* path) -> std::optional<int> {
        order.push_back(std::string("unlink ") + path);
        return std::nullopt;
    });
    CountingHook<calls::Bind> bindCalls;
    bindCalls.OnCall([&](uint64_t, int, const sockaddr* addr, socklen_t length) -> std::optional<int> {
        order.push_back("bind " + std::to_string(addr->sa_family) + " " +
                        reinterpret_cast<const sockaddr_un*>(addr)->sun_path + " " + std::to_string(length));
        return std::nullopt;
    });
    CountingHook<calls::Listen> listenCalls;
    listenCalls.OnCall([&](uint64_t, int, int backlog) -> std::optional<int> {
        order.push_back("listen " + std::to_string(backlog));
        return std::nullopt;
    });
    const Endpoint endpoint(19280);
    EXPECT_THAT(order, ElementsAre("socket 1 1 0", "unlink /home/KrovaUser/qel_ppc/sock_server_19280",
                                   "bind 1 /home/KrovaUser/qel_ppc/sock_server_19280 43", "listen 10"));
}

TEST_F(ServerCreateTest, NullOutParameterGives3)
{
    CountingHook<calls::Socket> socketCalls;
    EXPECT_EQ(drvPpcServerCreate(kServerId, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcServerCreate", "invalid input, null ptr")));
    EXPECT_EQ(socketCalls.Count(), 0u);
}

TEST_F(ServerCreateTest, FailureOfUnlinkIsIgnored)
{
    CountingHook<calls::Unlink> unlinkCalls;
    unlinkCalls.FailCall(1, -1, EPERM);
    const Endpoint endpoint;
    EXPECT_TRUE(RawConnect(kServerId).valid());
}

TEST_F(ServerCreateTest, StaleSocketFileIsReplaced)
{
    RawListen(kServerId).Reset();
    ASSERT_TRUE(IsSocketFile(SocketPath(kServerId)));
    const Endpoint endpoint;
    EXPECT_TRUE(RawConnect(kServerId).valid());
}

TEST_F(ServerCreateTest, SecondServerOfAnIdTakesThePathAndTheFirstKeepsItsSocket)
{
    const Endpoint first;
    const Fd early = RawConnect(kServerId);
    const Endpoint second;
    const Fd late = RawConnect(kServerId);
    for (const auto& [server, peer] : {std::pair(first.server, &early), std::pair(second.server, &late)}) {
        PpcSession* session = nullptr;
        ASSERT_EQ(drvPpcSessionAccept(server, &session), PPC_OK);
        EXPECT_TRUE(WriteAll(*peer, {1}));
        const Fd copy(dup(ViewOf(session).fd));
        EXPECT_TRUE(WaitReadable(copy, 5s));
        EXPECT_EQ(drvPpcSessionClose(session), PPC_OK);
    }
    int listens = 0;
    socklen_t size = sizeof(listens);
    EXPECT_EQ(getsockopt(ViewOf(first.server).listenFd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size), 0);
    EXPECT_EQ(listens, 1);
}

class ServerCreateFailureTest : public DriverTest, public testing::WithParamInterface<Failure> {};

TEST_P(ServerCreateFailureTest, ReleasesEverythingAndLeavesTheOutParameter)
{
    const Failure& failure = GetParam();
    PpcServerHead* server = kNoServer;
    CountingHook<calls::Close> closeCalls;
    const size_t before = OpenDescriptors();
    {
        const auto injected = failure.inject();
        EXPECT_EQ(drvPpcServerCreate(kServerId, &server), failure.code);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(closeCalls.Count(), failure.code == PPC_ERR_SOCKET_CREATE ? 0u : 1u);
    EXPECT_THAT(log_.Lines(), ElementsAre(DriverLine(failure.sink, "drvPpcServerCreate", failure.text)));
    EXPECT_EQ(server, kNoServer);
}

INSTANTIATE_TEST_SUITE_P(, ServerCreateFailureTest,
                         testing::Values(kSocketFails,
                                         Failure{"Bind", [] { return Fail<calls::Bind>(-1, EADDRINUSE); }, 20,
                                                 LogSink::kError,
                                                 "bind ppc socket error: " + ErrnoText(EADDRINUSE) + " server_pid 77"},
                                         Failure{"Listen", [] { return Fail<calls::Listen>(-1, EOPNOTSUPP); }, 21,
                                                 LogSink::kError, "listen ppc socket error: " + ErrnoText(EOPNOTSUPP)},
                                         MallocFails("ppc server malloc failed"), kMemsetFails),
                         NameOf);

TEST_F(ServerCreateTest, FailingMemsetFreesTheRecord)
{
    CountingHook<calls::MemsetS> memsetCalls;
    memsetCalls.FailCall(1, 34, ERANGE);
    const FreeCounter frees;
    PpcServerHead* server = kNoServer;
    EXPECT_EQ(drvPpcServerCreate(kServerId, &server), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(frees.Count(), 1u);
}

TEST_F(ServerCreateTest, MissingDirectoryFailsTheBind)
{
    ASSERT_EQ(rmdir(gaktest::kSocketDir), 0);
    PpcServerHead* server = kNoServer;
    EXPECT_EQ(drvPpcServerCreate(kServerId, &server), PPC_ERR_SOCKET_BIND);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcServerCreate",
                                                    "bind ppc socket error: " + ErrnoText(ENOENT) + " server_pid 77")));
}

// Without ppcInit.
class UnpreparedTest : public testing::Test {
protected:
    gaktest::LogCapture log_;
    const size_t before_ = OpenDescriptors();
};

TEST_F(UnpreparedTest, ServerCreateGives24AndClosesTheSocket)
{
    PpcServerHead* server = kNoServer;
    EXPECT_EQ(drvPpcServerCreate(kServerId, &server), PPC_ERR_SOCKET_PATH);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSetSockPath", "Ppc set path sprintf_s failed")));
    EXPECT_EQ(server, kNoServer);
    EXPECT_EQ(OpenDescriptors(), before_);
}

TEST_F(UnpreparedTest, SessionConnectGives24AndClosesTheSocket)
{
    PpcSession* session = kNoSession;
    EXPECT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_ERR_SOCKET_PATH);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSetSockPath", "Ppc set path sprintf_s failed")));
    EXPECT_EQ(session, kNoSession);
    EXPECT_EQ(OpenDescriptors(), before_);
}

// ---- drvPpcServerDestroy ----

class ServerDestroyTest : public DriverTest {};

TEST_F(ServerDestroyTest, ClosesTheSocketAndLeavesItsFile)
{
    const size_t before = OpenDescriptors();
    Endpoint endpoint;
    const int fd = ViewOf(endpoint.server).listenFd;
    log_.Clear();
    endpoint.End();
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine("drvPpcServerDestroy",
                                                   "Ppc Destory Server listenFd " + std::to_string(fd) + " pHead " +
                                                       PointerText(endpoint.server) + ", pid " + PidText())));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(IsSocketFile(SocketPath(kServerId)));
    EXPECT_FALSE(RawConnect(kServerId).valid());
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(ServerDestroyTest, MarksTheRecordBeforeTheShutdownAndClosesLast)
{
    Endpoint endpoint;
    const int fd = ViewOf(endpoint.server).listenFd;
    std::vector<std::string> order;
    CountingHook<calls::Shutdown> shutdownCalls;
    shutdownCalls.OnCall([&](uint64_t, int which, int how) -> std::optional<int> {
        EXPECT_EQ(which, fd);
        EXPECT_EQ(how, SHUT_RDWR);
        order.push_back("shutdown with " + std::to_string(ViewOf(endpoint.server).listenFd));
        return std::nullopt;
    });
    CountingHook<calls::Close> closeCalls;
    closeCalls.OnCall([&](uint64_t, int which) -> std::optional<int> {
        EXPECT_EQ(which, fd);
        order.push_back("close");
        return std::nullopt;
    });
    endpoint.End();
    EXPECT_THAT(order, ElementsAre("shutdown with -1", "close"));
}

TEST_F(ServerDestroyTest, NullServerGives3)
{
    EXPECT_EQ(drvPpcServerDestroy(nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcServerDestroy", "null server")));
}

TEST_F(ServerDestroyTest, UnknownServerGives3AndIsNotDereferenced)
{
    EXPECT_EQ(drvPpcServerDestroy(kNoServer), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcServerDestroy", "server " + PointerText(kNoServer) + " is not open")));
}

TEST_F(ServerDestroyTest, AcceptedSessionsStay)
{
    Endpoint endpoint;
    const Fd peer = RawConnect(kServerId);
    PpcSession* session = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint.server, &session), PPC_OK);
    endpoint.End();
    EXPECT_EQ(drvPpcSend(session, Message(session, {5}).msg, 0), PPC_OK);
    EXPECT_EQ(gaktest::ReadFrame(peer, 5s), Bytes{5});
    EXPECT_EQ(drvPpcSessionClose(session), PPC_OK);
}

// ---- drvPpcSessionAccept ----

class SessionAcceptTest : public DriverTest {
protected:
    SessionAcceptTest()
    {
        peer_ = RawConnect(kServerId);
        listenFd_ = ViewOf(endpoint_.server).listenFd;
        log_.Clear();
    }

    Endpoint endpoint_;
    Fd peer_;
    int listenFd_ = -1;
    PpcSession* session_ = kNoSession;
};

TEST_F(SessionAcceptTest, MakesASessionOfTheConnection)
{
    ASSERT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_OK);
    const SessionView view = ViewOf(session_);
    EXPECT_EQ(view.magic, 0x484443FFu);
    EXPECT_TRUE(IsOpen(view.fd));
    EXPECT_THAT(view.reserved, Each(0u));
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine("drvPpcSessionAccept",
                                                   "Ppc Accept Session " + std::to_string(view.fd) + ", Server fd " +
                                                       std::to_string(listenFd_) + ", pid " + PidText())));
    EXPECT_FALSE(WaitReadable(peer_, 0s)) << "nothing is exchanged";
    EXPECT_EQ(drvPpcSend(session_, Message(session_, {5}).msg, 0), PPC_OK);
    EXPECT_EQ(gaktest::ReadFrame(peer_, 5s), Bytes{5});
    EXPECT_EQ(drvPpcSessionClose(session_), PPC_OK);
}

TEST_F(SessionAcceptTest, AsksForAPeerAddressOf110Bytes)
{
    CountingHook<calls::Accept> acceptCalls;
    socklen_t asked = 0;
    acceptCalls.OnCall([&](uint64_t, int fd, sockaddr* addr, socklen_t* length) -> std::optional<int> {
        EXPECT_EQ(fd, listenFd_);
        EXPECT_NE(addr, nullptr);
        asked = *length;
        return std::nullopt;
    });
    ASSERT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_OK);
    EXPECT_EQ(asked, 110u);
    EXPECT_EQ(drvPpcSessionClose(session_), PPC_OK);
}

TEST_F(SessionAcceptTest, IsRepeatedWhileInterrupted)
{
    CountingHook<calls::Accept> acceptCalls;
    acceptCalls.FailCalls(1, 3, -1, EINTR);
    ASSERT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_OK);
    EXPECT_EQ(acceptCalls.Count(), 4u);
    EXPECT_EQ(drvPpcSessionClose(session_), PPC_OK);
}

TEST_F(SessionAcceptTest, NullArgumentsGive3WithAWarning)
{
    EXPECT_EQ(drvPpcSessionAccept(nullptr, &session_), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcSessionAccept(nullptr, nullptr), PPC_ERR_INVALID_VALUE);
    const auto line = WarnLine("drvPpcSessionAccept", "Server socket closed or invalid argument!");
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line, line));
    EXPECT_EQ(session_, kNoSession);
}

TEST_F(SessionAcceptTest, FailedAcceptOnALiveEndpointGives22)
{
    CountingHook<calls::Accept> acceptCalls;
    acceptCalls.FailCall(1, -1, EMFILE);
    EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_ERR_SOCKET_ACCEPT);
    EXPECT_EQ(acceptCalls.Count(), 1u);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSessionAccept", "accept ppc socket error: " + ErrnoText(EMFILE) +
                                                                 " pHead->listenFd " + std::to_string(listenFd_) +
                                                                 " pHead " + PointerText(endpoint_.server))));
    EXPECT_EQ(session_, kNoSession);
}

class SessionAcceptPauseTest : public SessionAcceptTest {
protected:
    // Makes an accept fail with that error; gives the calls of poll that it made.
    std::vector<std::string> PausesAfter(int error)
    {
        CountingHook<calls::Accept> acceptCalls;
        acceptCalls.FailCall(1, -1, error);
        CountingHook<calls::Poll> pollCalls;
        std::vector<std::string> pauses;
        pollCalls.OnCall([&](uint64_t, pollfd* wanted, nfds_t count, int timeout) {
            EXPECT_EQ(count, 1u);
            pauses.push_back(std::to_string(wanted->fd) + " " + std::to_string(wanted->events) + " " +
                             std::to_string(timeout));
            return std::optional<int>(0);
        });
        EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_ERR_SOCKET_ACCEPT);
        return pauses;
    }
};

class ExhaustedSystemTest : public SessionAcceptPauseTest, public testing::WithParamInterface<int> {};

TEST_P(ExhaustedSystemTest, IsGiven10MillisecondsThatAShutdownEnds)
{
    EXPECT_THAT(PausesAfter(GetParam()), ElementsAre(std::to_string(listenFd_) + " 0 10"));
}

INSTANTIATE_TEST_SUITE_P(, ExhaustedSystemTest, testing::Values(EMFILE, ENFILE, ENOBUFS, ENOMEM),
                         [](const auto& error) { return strerrorname_np(error.param); });

TEST_F(SessionAcceptPauseTest, ConnectionThatHasGoneIsReportedWithoutAPause)
{
    EXPECT_THAT(PausesAfter(ECONNABORTED), IsEmpty());
}

TEST_F(SessionAcceptTest, UnknownServerGives3WithAWarningAndIsNotDereferenced)
{
    EXPECT_EQ(drvPpcSessionAccept(kNoServer, &session_), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(WarnLine("drvPpcSessionAccept", "Server socket closed or invalid argument!")));
    EXPECT_EQ(session_, kNoSession);
}

TEST_F(SessionAcceptTest, AfterDestroyGives25WithAWarning)
{
    endpoint_.End();
    log_.Clear();
    EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(WarnLine("drvPpcSessionAccept",
                                                   "Server socket closed pHead " + PointerText(endpoint_.server))));
    EXPECT_EQ(session_, kNoSession);
}

class SessionAcceptFailureTest : public SessionAcceptTest, public testing::WithParamInterface<Failure> {};

TEST_P(SessionAcceptFailureTest, ClosesTheConnectionAndLeavesTheOutParameter)
{
    const Failure& failure = GetParam();
    const size_t before = OpenDescriptors();
    const FreeCounter frees;
    {
        const auto injected = failure.inject();
        EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), failure.code);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(frees.Count(), failure.code == PPC_ERR_NO_MEMORY ? 0u : 1u);
    EXPECT_TRUE(ExpectEof(peer_, 5s));
    const auto lines = log_.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0].Message(), testing::StartsWith("Ppc Accept Session "));
    EXPECT_THAT(lines[1], DriverLine(failure.sink, "drvPpcSessionAccept", failure.text));
    EXPECT_EQ(session_, kNoSession);
}

// Unlike the others it closes first.
TEST_F(SessionAcceptTest, FailingMemsetClosesTheConnectionBeforeTheLine)
{
    std::vector<size_t> linesBeforeClose;
    CountingHook<calls::Close> closeCalls;
    closeCalls.OnCall([&](uint64_t, int) -> std::optional<int> {
        linesBeforeClose.push_back(log_.Lines().size());
        errno = EIO;
        return std::nullopt;
    });
    CountingHook<calls::MemsetS> memsetCalls;
    memsetCalls.FailCall(1, 34, ERANGE);
    EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(linesBeforeClose, ElementsAre(1u)) << "the line of the accepted connection";
    EXPECT_THAT(log_.Lines().back(), ErrorLine("drvPpcSessionAccept", MemsetText(ERANGE)));
}

TEST_F(SessionAcceptTest, FailingMallocClosesTheConnectionAfterTheLine)
{
    std::vector<size_t> linesBeforeClose;
    CountingHook<calls::Close> closeCalls;
    closeCalls.OnCall([&](uint64_t, int) -> std::optional<int> {
        linesBeforeClose.push_back(log_.Lines().size());
        return std::nullopt;
    });
    CountingHook<calls::Malloc> mallocCalls;
    mallocCalls.FailCall(1, nullptr, ENOMEM);
    EXPECT_EQ(drvPpcSessionAccept(endpoint_.server, &session_), PPC_ERR_NO_MEMORY);
    EXPECT_THAT(linesBeforeClose, ElementsAre(2u));
}

INSTANTIATE_TEST_SUITE_P(, SessionAcceptFailureTest,
                         testing::Values(MallocFails("ppc server session malloc failed"), kMemsetFails), NameOf);

// ---- drvPpcSessionClose and drvPpcSessionDestroy ----

struct EndFunction {
    const char* name;
    int (*end)(PpcSession*);
    size_t linesBeforeClose;
    std::function<std::string(int fd, PpcSession*)> text;
};

void PrintTo(const EndFunction& function, std::ostream* out)
{
    *out << function.name;
}

class SessionEndTest : public DriverTest, public testing::WithParamInterface<EndFunction> {
protected:
    SessionEndTest()
    {
        Fd listener = RawListen(kServerId);
        EXPECT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_OK);
        peer_ = RawAccept(listener, 5s);
        fd_ = ViewOf(session_).fd;
        log_.Clear();
    }

    PpcSession* session_ = nullptr;
    Fd peer_;
    int fd_ = -1;
};

TEST_P(SessionEndTest, ShutsDownAndCloses)
{
    const size_t before = OpenDescriptors();
    std::vector<std::string> order;
    CountingHook<calls::Shutdown> shutdownCalls;
    shutdownCalls.OnCall([&](uint64_t, int which, int how) -> std::optional<int> {
        EXPECT_EQ(which, fd_);
        EXPECT_EQ(how, SHUT_RDWR);
        order.push_back("shutdown");
        return std::nullopt;
    });
    CountingHook<calls::Close> closeCalls;
    size_t linesBefore = 99;
    closeCalls.OnCall([&](uint64_t, int which) -> std::optional<int> {
        EXPECT_EQ(which, fd_);
        order.push_back("close");
        linesBefore = log_.Lines().size();
        return std::nullopt;
    });
    EXPECT_EQ(GetParam().end(session_), PPC_OK);
    EXPECT_THAT(order, ElementsAre("shutdown", "close"));
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine(GetParam().name, GetParam().text(fd_, session_))));
    EXPECT_EQ(linesBefore, GetParam().linesBeforeClose);
    EXPECT_TRUE(ExpectEof(peer_, 5s));
    EXPECT_EQ(OpenDescriptors(), before - 1);
}

TEST_P(SessionEndTest, NullSessionGives3)
{
    EXPECT_EQ(GetParam().end(nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine(GetParam().name, "null session")));
    EXPECT_EQ(GetParam().end(session_), PPC_OK);
}

TEST_P(SessionEndTest, UnknownSessionGives3AndIsNotDereferenced)
{
    EXPECT_EQ(GetParam().end(kNoSession), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine(GetParam().name, "session " + PointerText(kNoSession) + " is not open")));
    EXPECT_EQ(GetParam().end(session_), PPC_OK);
}

TEST_P(SessionEndTest, SessionThatLostItsSocketIsEnded)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 0, 0, 1, 1}));
    const Message message(session_);
    {
        const auto injected = Fail<calls::Malloc>(static_cast<void*>(nullptr), ENOMEM);
        uint32_t count = 0;
        ASSERT_EQ(drvPpcRecv(session_, message.msg, 0, 0, &count), PPC_ERR_NO_MEMORY);
    }
    log_.Clear();
    CountingHook<calls::Close> closeCalls;
    EXPECT_EQ(GetParam().end(session_), PPC_OK);
    EXPECT_EQ(closeCalls.Count(), 0u);
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine(GetParam().name, GetParam().text(-1, session_))));
}

INSTANTIATE_TEST_SUITE_P(, SessionEndTest,
                         testing::Values(EndFunction{"drvPpcSessionClose", &drvPpcSessionClose, 0,
                                                     [](int fd, PpcSession* session) {
                                                         return "Ppc Close session fd " + std::to_string(fd) +
                                                                ", pid " + PidText() + " session " +
                                                                PointerText(session);
                                                     }},
                                         EndFunction{"drvPpcSessionDestroy", &drvPpcSessionDestroy, 1,
                                                     [](int fd, PpcSession*) {
                                                         return "Ppc Destroy session " + std::to_string(fd) + ", pid " +
                                                                PidText();
                                                     }}),
                         [](const auto& function) { return function.param.name; });

// ---- drvPpcClientCreate and drvPpcClientDestroy ----

class ClientTest : public testing::Test {
protected:
    gaktest::LogCapture log_;
};

TEST_F(ClientTest, CreateLeavesTheHandleNull)
{
    void* client = nullptr;
    for (const auto& [first, second] : {std::pair(100, 0), std::pair(0, 0), std::pair(-1, 7)}) {
        EXPECT_EQ(drvPpcClientCreate(&client, first, second), PPC_OK);
        EXPECT_EQ(client, nullptr);
    }
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ClientTest, CreateWritesNoHandle)
{
    void* client = this;
    EXPECT_EQ(drvPpcClientCreate(&client, 100, 0), PPC_OK);
    EXPECT_EQ(client, this);
}

TEST_F(ClientTest, NullPointersGive3)
{
    EXPECT_EQ(drvPpcClientCreate(nullptr, 100, 0), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcClientDestroy(nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcClientCreate", "invalid input, nullptr"),
                                          ErrorLine("drvPpcClientDestroy", "invalid input, nullptr")));
}

TEST_F(ClientTest, DestroyReleasesNothing)
{
    const FreeCounter frees;
    EXPECT_EQ(drvPpcClientDestroy(this), PPC_OK);
    EXPECT_EQ(drvPpcClientDestroy(reinterpret_cast<void*>(1)), PPC_OK);
    EXPECT_EQ(frees.Count(), 0u);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

// ---- drvPpcSessionConnect ----

class SessionConnectTest : public DriverTest {
protected:
    void ExpectConnectFails(int error)
    {
        CountingHook<calls::Connect> connectCalls;
        const size_t before = OpenDescriptors();
        EXPECT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_ERR_SOCKET_CONNECT);
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(WarnLine("drvPpcSessionConnect",
                                         "connect ppc socket error: " + ErrnoText(error) + ", server pid 77")));
        EXPECT_EQ(session_, kNoSession);
        EXPECT_EQ(connectCalls.Count(), 1u);
    }

    PpcSession* session_ = kNoSession;
};

TEST_F(SessionConnectTest, MakesASessionOfTheConnection)
{
    const Fd listener = RawListen(kServerId);
    ASSERT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_OK);
    const Fd peer = RawAccept(listener, 5s);
    const SessionView view = ViewOf(session_);
    EXPECT_EQ(view.magic, 0x484443FFu);
    EXPECT_TRUE(IsOpen(view.fd));
    EXPECT_THAT(view.reserved, Each(0u));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(InfoLine("drvPpcSessionConnect",
                                     "Ppc connect session " + std::to_string(view.fd) + ", pid " + PidText())));
    EXPECT_FALSE(WaitReadable(peer, 0s)) << "nothing is exchanged";
    EXPECT_EQ(drvPpcSend(session_, Message(session_, {5}).msg, 0), PPC_OK);
    EXPECT_EQ(gaktest::ReadFrame(peer, 5s), Bytes{5});
    EXPECT_EQ(drvPpcSessionDestroy(session_), PPC_OK);
}

TEST_F(SessionConnectTest, ConnectsToTheServersPath)
{
    const Fd listener = RawListen(19280);
    CountingHook<calls::Socket> socketCalls;
    CountingHook<calls::Connect> connectCalls;
    std::string asked;
    socketCalls.OnCall([&](uint64_t, int domain, int type, int protocol) -> std::optional<int> {
        EXPECT_THAT(std::vector<int>({domain, type, protocol}), ElementsAre(AF_UNIX, SOCK_STREAM, 0));
        return std::nullopt;
    });
    connectCalls.OnCall([&](uint64_t, int, const sockaddr* addr, socklen_t length) -> std::optional<int> {
        asked = std::to_string(addr->sa_family) + " " + reinterpret_cast<const sockaddr_un*>(addr)->sun_path + " " +
                std::to_string(length);
        return std::nullopt;
    });
    ASSERT_EQ(drvPpcSessionConnect(19280, &session_), PPC_OK);
    EXPECT_EQ(asked, "1 /home/KrovaUser/qel_ppc/sock_server_19280 43");
    EXPECT_EQ(socketCalls.Count(), 1u);
    EXPECT_EQ(drvPpcSessionDestroy(session_), PPC_OK);
}

TEST_F(SessionConnectTest, NullOutParameterGives3)
{
    CountingHook<calls::Socket> socketCalls;
    EXPECT_EQ(drvPpcSessionConnect(kServerId, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSessionConnect", "invalid input, null ptr")));
    EXPECT_EQ(socketCalls.Count(), 0u);
}

TEST_F(SessionConnectTest, WithoutASocketFileGives19)
{
    ExpectConnectFails(ENOENT);
}

TEST_F(SessionConnectTest, WhenNobodyListensGives19)
{
    RawListen(kServerId).Reset();
    ExpectConnectFails(ECONNREFUSED);
}

// A log may change errno when it is asked for its level.
TEST_F(SessionConnectTest, FailureIsLoggedWithTheErrnoOfTheCall)
{
    CountingHook<LevelQuestion> questions;
    questions.OnCall([](uint64_t, int, int) {
        errno = EXDEV;
        return std::optional<int>(1);
    });
    ExpectConnectFails(ENOENT);
}

TEST_F(SessionConnectTest, FailureIsNotLoggedWhenWarningsAreOff)
{
    log_.SetMinimumLevel(3);
    EXPECT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_ERR_SOCKET_CONNECT);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SessionConnectTest, IsRepeatedWhileInterrupted)
{
    const Fd listener = RawListen(kServerId);
    CountingHook<calls::Connect> connectCalls;
    connectCalls.FailCalls(1, 3, -1, EINTR);
    ASSERT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_OK);
    EXPECT_EQ(connectCalls.Count(), 4u);
    EXPECT_EQ(drvPpcSessionDestroy(session_), PPC_OK);
}

TEST_F(SessionConnectTest, FailingMemsetFreesTheRecord)
{
    const Fd listener = RawListen(kServerId);
    CountingHook<calls::MemsetS> memsetCalls;
    memsetCalls.FailCall(1, 34, ERANGE);
    const FreeCounter frees;
    EXPECT_EQ(drvPpcSessionConnect(kServerId, &session_), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(frees.Count(), 1u);
}

class SessionConnectFailureTest : public SessionConnectTest, public testing::WithParamInterface<Failure> {};

TEST_P(SessionConnectFailureTest, ReleasesEverythingAndLeavesTheOutParameter)
{
    const Failure& failure = GetParam();
    const Fd listener = RawListen(kServerId);
    CountingHook<calls::Close> closeCalls;
    const size_t before = OpenDescriptors();
    {
        const auto injected = failure.inject();
        EXPECT_EQ(drvPpcSessionConnect(kServerId, &session_), failure.code);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(closeCalls.Count(), failure.code == PPC_ERR_SOCKET_CREATE ? 0u : 1u);
    EXPECT_THAT(log_.Lines(), ElementsAre(DriverLine(failure.sink, "drvPpcSessionConnect", failure.text)));
    EXPECT_EQ(session_, kNoSession);
}

INSTANTIATE_TEST_SUITE_P(, SessionConnectFailureTest,
                         testing::Values(kSocketFails,
                                         Failure{"Connect", [] { return Fail<calls::Connect>(-1, EACCES); }, 19,
                                                 LogSink::kWarn,
                                                 "connect ppc socket error: " + ErrnoText(EACCES) + ", server pid 77"},
                                         MallocFails("ppc session malloc failed"), kMemsetFails),
                         NameOf);

// ---- Standard descriptors ----

// Standard descriptors that are closed for a while, as launchers start processes: those whose bit is set.
class ClosedStandardDescriptors {
public:
    explicit ClosedStandardDescriptors(unsigned bits)
    {
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            saved_[fd].Reset(fcntl(fd, F_DUPFD_CLOEXEC, 10));
            if ((bits >> fd & 1) != 0) {
                close(fd);
            }
        }
    }
    ~ClosedStandardDescriptors()
    {
        for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
            dup2(saved_[fd].get(), fd);
        }
    }
    ClosedStandardDescriptors(const ClosedStandardDescriptors&) = delete;
    ClosedStandardDescriptors& operator=(const ClosedStandardDescriptors&) = delete;

    static unsigned Bits() { return (IsOpen(0) ? 0U : 1U) | (IsOpen(1) ? 0U : 2U) | (IsOpen(2) ? 0U : 4U); }

private:
    Fd saved_[3];
};

// Nothing is expected in here: there may be nowhere to say it.
class StandardDescriptorTest : public DriverTest, public testing::WithParamInterface<unsigned> {
protected:
    void OpenAll()
    {
        codes_ = {drvPpcServerCreate(kServerId, &server_)};
        fds_ = {ViewOf(server_).listenFd};
        codes_.push_back(drvPpcSessionConnect(kServerId, &connected_));
        fds_.push_back(ViewOf(connected_).fd);
        codes_.push_back(drvPpcSessionAccept(server_, &accepted_));
        fds_.push_back(ViewOf(accepted_).fd);
    }

    PpcServerHead* server_ = nullptr;
    PpcSession* connected_ = nullptr;
    PpcSession* accepted_ = nullptr;
    std::vector<int> codes_;
    std::vector<int> fds_;
};

// What the process writes to its standard output must not become a frame.
TEST_P(StandardDescriptorTest, NoSocketGetsTheNumberOfOne)
{
    unsigned stillClosed = 0;
    {
        const ClosedStandardDescriptors closed(GetParam());
        OpenAll();
        stillClosed = ClosedStandardDescriptors::Bits();
    }
    EXPECT_THAT(codes_, Each(PPC_OK));
    EXPECT_THAT(fds_, Each(testing::Gt(STDERR_FILENO)));
    EXPECT_EQ(stillClosed, GetParam());
    for (const int fd : fds_) {
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    const Message message(connected_, {5});
    EXPECT_EQ(drvPpcSend(connected_, message.msg, 0), PPC_OK);
    const Fd copy(dup(fds_.back()));
    EXPECT_EQ(gaktest::ReadFrame(copy, 5s), Bytes{5});
    EXPECT_EQ(drvPpcSessionDestroy(connected_), PPC_OK);
    EXPECT_EQ(drvPpcSessionClose(accepted_), PPC_OK);
    EXPECT_EQ(drvPpcServerDestroy(server_), PPC_OK);
}

INSTANTIATE_TEST_SUITE_P(, StandardDescriptorTest, testing::Range(0U, 8U),
                         [](const auto& bits) { return "Closed" + std::to_string(bits.param); });

TEST_F(SessionAcceptTest, WithoutAnotherNumberThanAStandardOneEachCallFails)
{
    const size_t before = OpenDescriptors();
    PpcServerHead* server = kNoServer;
    int codes[3] = {};
    {
        CountingHook<calls::Fcntl> fcntlCalls;
        fcntlCalls.OnCall([](uint64_t, int, int command, long) {
            errno = EMFILE;
            return command == F_DUPFD_CLOEXEC ? std::optional<int>(-1) : std::nullopt;
        });
        const ClosedStandardDescriptors closed(1);
        codes[0] = drvPpcSessionAccept(endpoint_.server, &session_);
        codes[1] = drvPpcServerCreate(kServerId, &server);
        codes[2] = drvPpcSessionConnect(kServerId, &session_);
    }
    EXPECT_THAT(codes, ElementsAre(PPC_ERR_SOCKET_ACCEPT, PPC_ERR_SOCKET_CREATE, PPC_ERR_SOCKET_CREATE));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSessionAccept", "accept ppc socket error: " + ErrnoText(EMFILE) +
                                                                 " pHead->listenFd " + std::to_string(listenFd_) +
                                                                 " pHead " + PointerText(endpoint_.server)),
                            ErrorLine("drvPpcServerCreate", "create ppc socket error: " + ErrnoText(EMFILE)),
                            ErrorLine("drvPpcSessionConnect", "create ppc socket error: " + ErrnoText(EMFILE))));
    EXPECT_TRUE(ExpectEof(peer_, 5s));
    EXPECT_EQ(session_, kNoSession);
    EXPECT_EQ(server, kNoServer);
    EXPECT_EQ(OpenDescriptors(), before);
}

// ---- Tracepoints ----

std::string SessionHit(const char* name, int fd, pid_t peer)
{
    return std::string(name) + " " + std::to_string(fd) + " " + std::to_string(peer);
}

class SessionTracepointTest : public DriverTest {
protected:
    void SetUp() override { GAKPPC_SKIP_WITHOUT_TRACEPOINTS(); }

    static const std::vector<std::string>& Names()
    {
        static const std::vector<std::string> names = {"session_opened", "session_ended"};
        return names;
    }
};

TEST_F(SessionTracepointTest, AcceptedSessionIsTracedWithItsRealPeer)
{
    Endpoint endpoint;
    ChildProcess worker([] {
        const Fd socket = RawConnect(kServerId);
        return ExpectEof(socket, 20s) ? 0 : 1;
    });
    const TracepointLog traced(Names());
    PpcSession* session = nullptr;
    ASSERT_EQ(drvPpcSessionAccept(endpoint.server, &session), PPC_OK);
    const int fd = ViewOf(session).fd;
    EXPECT_THAT(traced.Lines(), ElementsAre(SessionHit("session_opened", fd, worker.pid())));
    EXPECT_EQ(drvPpcSessionClose(session), PPC_OK);
    EXPECT_NE(drvPpcSessionClose(session), PPC_OK);
    EXPECT_THAT(traced.Lines(), ElementsAre(SessionHit("session_opened", fd, worker.pid()),
                                            SessionHit("session_ended", fd, worker.pid())));
    EXPECT_TRUE(worker.WaitExit(20s).ExitedWith(0));
}

TEST_F(SessionTracepointTest, ConnectedSessionIsTracedWithTheProcessThatListens)
{
    const TracepointLog traced(Names());
    Connection connection;
    const int fd = connection.FdNumber();
    EXPECT_THAT(traced.Lines(), ElementsAre(SessionHit("session_opened", fd, getpid())));
    connection.End();
    EXPECT_THAT(traced.Lines(),
                ElementsAre(SessionHit("session_opened", fd, getpid()), SessionHit("session_ended", fd, getpid())));
}

TEST_F(SessionTracepointTest, EndIsTracedBeforeTheSocketIsShutDown)
{
    Connection connection;
    bool wasConnected = false;
    const Tracer tracer({"session_ended"},
                        [&](const TracepointHit&) { wasConnected = !WaitReadable(connection.peer, 0s); });
    connection.End();
    EXPECT_TRUE(wasConnected);
    EXPECT_TRUE(ExpectEof(connection.peer, 5s));
}

TEST_F(SessionTracepointTest, SessionThatDoesNotComeAboutIsNotTraced)
{
    const Endpoint endpoint;
    const Fd peer = RawConnect(kServerId);
    const TracepointLog traced(Names());
    PpcSession* session = nullptr;
    {
        const auto failing = Fail<calls::Malloc>(static_cast<void*>(nullptr), ENOMEM);
        EXPECT_EQ(drvPpcSessionAccept(endpoint.server, &session), PPC_ERR_NO_MEMORY);
        EXPECT_EQ(drvPpcSessionConnect(kServerId, &session), PPC_ERR_NO_MEMORY);
    }
    EXPECT_EQ(drvPpcSessionConnect(kServerId + 1, &session), PPC_ERR_SOCKET_CONNECT);
    EXPECT_THAT(traced.Lines(), IsEmpty());
}

TEST_F(SessionTracepointTest, PeerOfASessionThatLostItsSocketIsUnknown)
{
    Connection connection;
    const int fd = connection.FdNumber();
    {
        const Message message(connection.session);
        EXPECT_TRUE(WriteAll(connection.peer, FrameBytes({1})));
        const auto failing = Fail<calls::Malloc>(static_cast<void*>(nullptr), ENOMEM);
        uint32_t count = 0;
        EXPECT_EQ(drvPpcRecv(connection.session, message.msg, 0, 0, &count), PPC_ERR_NO_MEMORY);
    }
    const Fd other(dup2(connection.peer.get(), fd));  // the number is used again
    const TracepointLog traced(Names());
    connection.End();
    EXPECT_THAT(traced.Lines(), ElementsAre(SessionHit("session_ended", fd, 0)));
}

}  // namespace
