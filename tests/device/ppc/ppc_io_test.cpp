#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <future>
#include <optional>

#include "driver_test.h"
#include "held_mutexes.h"

namespace {

using namespace gaktest;
using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kTen{10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
const Bytes kTenFrame{0, 0, 0, 10, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};

int WaitingBytes(const Fd& socket)
{
    int waiting = -1;
    EXPECT_EQ(ioctl(socket.get(), FIONREAD, &waiting), 0);
    return waiting;
}

std::string SockText(int fd)
{
    return "(sock: " + std::to_string(fd) + ")";
}

// Of the texts that log errno although no call failed: it is what it was before.
constexpr int kEarlierErrno = EDOM;

std::string ClosedText(int fd)
{
    return "client connection closed: " + ErrnoText(kEarlierErrno) + SockText(fd);
}

std::string RecvErrorText(int fd, int error)
{
    return "recv error: " + ErrnoText(error) + SockText(fd);
}

// The format and its arguments are not looked at.
struct ErrorLineCall : calls::OfGakppc {
    static constexpr const char* kSymbol = "VlogErrorInner";
    using Signature = int(int, const char*);
};

// The driver's end of a connection is a bare descriptor here.
class SocketIoTest : public testing::Test {
protected:
    SocketIoTest() { std::tie(socket_, peer_) = gaktest::SocketPair(); }

    int Send(const Bytes& payload)
    {
        return drvPpcSocketSend(socket_.get(), payload.data(), static_cast<int>(payload.size()));
    }

    int Peek()
    {
        errno = kEarlierErrno;
        return drvPpcSocketRecvPeek(socket_.get(), &length_);
    }

    int Receive(int expected)
    {
        buffer_.assign(static_cast<size_t>(expected) + 1, 0xEE);
        errno = kEarlierErrno;
        const int code = drvPpcSocketRecv(socket_.get(), buffer_.data(), expected, &got_);
        EXPECT_EQ(buffer_.back(), 0xEE) << "written past the buffer";
        buffer_.pop_back();
        return code;
    }

    std::string SendFailure(int error, int written, int len) const
    {
        return "send (sockfd " + std::to_string(socket_.get()) + ")error: " + ErrnoText(error) + "  " +
               std::to_string(written) + " " + std::to_string(len) + " 4";
    }

    static constexpr uint32_t kUntouched = 0xABCDEF01;

    Fd socket_;
    Fd peer_;
    Bytes buffer_;
    uint32_t length_ = kUntouched;
    uint32_t got_ = kUntouched;
    gaktest::LogCapture log_;
};

// ---- drvPpcSocketSend ----

TEST_F(SocketIoTest, TenBytesMakeFourteenOnTheSocket)
{
    EXPECT_EQ(Send(kTen), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(peer_, 14, 5s)), Hex(kTenFrame));
    EXPECT_EQ(WaitingBytes(peer_), 0);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SocketIoTest, LengthFieldIsBigEndian)
{
    std::future<int> sender = std::async(std::launch::async, [this] { return Send(Bytes(0x010203)); });
    EXPECT_EQ(Hex(ReadExactly(peer_, 4, 5s)), "00 01 02 03");
    EXPECT_EQ(ReadExactly(peer_, 0x010203, 5s).size(), 0x010203u);
    EXPECT_EQ(sender.get(), PPC_OK);
}

TEST_F(SocketIoTest, EmptyPayloadIsALegalFrame)
{
    EXPECT_EQ(drvPpcSocketSend(socket_.get(), kTen.data(), 0), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(peer_, 4, 5s)), "00 00 00 00");
    EXPECT_EQ(WaitingBytes(peer_), 0);
}

TEST_F(SocketIoTest, FrameLeavesInOneWritevOfTheCallersBuffer)
{
    CountingHook<calls::Writev> writevCalls;
    std::vector<iovec> entries;
    writevCalls.OnCall([&](uint64_t, int, const iovec* given, int count) -> std::optional<ssize_t> {
        entries.assign(given, given + count);
        return std::nullopt;
    });
    EXPECT_EQ(Send(kTen), PPC_OK);
    EXPECT_EQ(writevCalls.Count(), 1u);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].iov_len, 4u);
    EXPECT_EQ(entries[1].iov_base, kTen.data());
    EXPECT_EQ(entries[1].iov_len, 10u);
}

TEST_F(SocketIoTest, NullBufferGives3AndWritesNothing)
{
    EXPECT_EQ(drvPpcSocketSend(socket_.get(), nullptr, 10), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketSend", "null buf")));
    EXPECT_EQ(WaitingBytes(peer_), 0);
}

TEST_F(SocketIoTest, FailedWriteGives27AndIsNotRepeated)
{
    CountingHook<calls::Writev> writevCalls;
    for (const int error : {EINTR, EAGAIN, EIO}) {
        log_.Clear();
        writevCalls.Reset();
        writevCalls.FailCall(1, -1, error);
        EXPECT_EQ(Send(kTen), PPC_ERR_SEND);
        EXPECT_EQ(writevCalls.Count(), 1u);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketSend", SendFailure(error, -1, 10))));
    }
}

TEST_F(SocketIoTest, InterruptionBeforeTheFirstByteLeavesTheConnectionUsable)
{
    CountingHook<calls::Writev> writevCalls;
    writevCalls.FailCall(1, -1, EINTR);
    EXPECT_EQ(Send({1, 2}), PPC_ERR_SEND);
    EXPECT_EQ(Send(kTen), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(peer_, 14, 5s)), Hex(kTenFrame));
}

TEST_F(SocketIoTest, ShortWriteGives27AndEndsTheConnection)
{
    for (const size_t taken : {1u, 3u, 4u, 13u}) {
        std::tie(socket_, peer_) = gaktest::SocketPair();
        log_.Clear();
        CountingHook<calls::Writev> writevCalls;
        writevCalls.OnCall([&](uint64_t, int fd, const iovec*, int) -> std::optional<ssize_t> {
            const ssize_t written = write(fd, kTenFrame.data(), taken);
            errno = EINTR;
            return written;
        });
        EXPECT_EQ(Send(kTen), PPC_ERR_SEND);
        EXPECT_EQ(writevCalls.Count(), 1u);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(ErrorLine("drvPpcSocketSend", SendFailure(EINTR, static_cast<int>(taken), 10))));
        EXPECT_EQ(ReadExactly(peer_, taken, 5s), Bytes(kTenFrame.begin(), kTenFrame.begin() + taken));
        EXPECT_TRUE(ExpectEof(peer_, 5s)) << "after " << taken << " bytes";
        EXPECT_TRUE(IsOpen(socket_.get())) << "the descriptor is the caller's to close";
    }
}

TEST_F(SocketIoTest, WriteToAClosedPeerGives27)
{
    peer_.Reset();
    EXPECT_EQ(Send(kTen), PPC_ERR_SEND);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketSend", SendFailure(EPIPE, -1, 10))));
}

TEST_F(SocketIoTest, LongestLengthDoesNotOverflow)
{
    CountingHook<calls::Writev> writevCalls;
    writevCalls.OnCall([](uint64_t, int, const iovec*, int) -> std::optional<ssize_t> { return INT_MAX + 4L; });
    EXPECT_EQ(drvPpcSocketSend(socket_.get(), kTen.data(), INT_MAX), PPC_OK);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

// -5 is the length for which a failed writev (-1) equals length + 4.
TEST_F(SocketIoTest, NegativeLengthGives27)
{
    for (const int length : {-1, -4, -5, INT_MIN}) {
        EXPECT_EQ(drvPpcSocketSend(socket_.get(), kTen.data(), length), PPC_ERR_SEND) << length;
    }
    EXPECT_EQ(WaitingBytes(peer_), 0);
}

// ---- drvPpcSocketRecvPeek ----

TEST_F(SocketIoTest, PeekReadsTheLengthWithoutConsumingIt)
{
    ASSERT_TRUE(WriteAll(peer_, {0x01, 0x02, 0x03, 0x04, 0xFF}));
    for (int i = 0; i < 2; ++i) {
        length_ = kUntouched;
        EXPECT_EQ(Peek(), PPC_OK);
        EXPECT_EQ(length_, 0x01020304u);
    }
    EXPECT_EQ(WaitingBytes(socket_), 5);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SocketIoTest, PeekIsRepeatedWhileInterrupted)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 0, 0, 7}));
    CountingHook<calls::Recv> recvCalls;
    recvCalls.FailCalls(1, 3, -1, EINTR);
    EXPECT_EQ(Peek(), PPC_OK);
    EXPECT_EQ(length_, 7u);
    EXPECT_EQ(recvCalls.Count(), 4u);
}

TEST_F(SocketIoTest, PeekAtTheEndGives25WithAnInformationLine)
{
    peer_.Reset();
    EXPECT_EQ(Peek(), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine("drvPpcSocketRecvPeek", ClosedText(socket_.get()))));
    EXPECT_EQ(length_, kUntouched);
}

// A log may change errno when it is asked for its level.
TEST_F(SocketIoTest, PeekAtTheEndLogsTheErrnoOfTheCall)
{
    peer_.Reset();
    CountingHook<LevelQuestion> questions;
    questions.OnCall([](uint64_t, int, int) {
        errno = EXDEV;
        return std::optional<int>(1);
    });
    EXPECT_EQ(Peek(), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine("drvPpcSocketRecvPeek", ClosedText(socket_.get()))));
}

TEST_F(SocketIoTest, FailedPeekGives26)
{
    CountingHook<calls::Recv> recvCalls;
    for (const int error : {ECONNRESET, EAGAIN, EBADF}) {
        log_.Clear();
        recvCalls.Reset();
        recvCalls.FailCall(1, -1, error);
        EXPECT_EQ(Peek(), PPC_ERR_RECV);
        EXPECT_EQ(recvCalls.Count(), 1u);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecvPeek", RecvErrorText(socket_.get(), error))));
    }
    EXPECT_EQ(length_, kUntouched);
}

TEST_F(SocketIoTest, PartOfALengthFieldGives3WithoutWaitingForTheRest)
{
    for (int waiting = 1; waiting <= 3; ++waiting) {
        log_.Clear();
        ASSERT_TRUE(WriteAll(peer_, {0}));
        EXPECT_EQ(Peek(), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(ErrorLine("drvPpcSocketRecvPeek", "length should be: 4" + SockText(socket_.get()))));
        EXPECT_EQ(WaitingBytes(socket_), waiting);
    }
    EXPECT_EQ(length_, kUntouched);
    ASSERT_TRUE(WriteAll(peer_, {9}));
    EXPECT_EQ(Peek(), PPC_OK);
    EXPECT_EQ(length_, 9u);
}

TEST_F(SocketIoTest, PeekWithoutAPlaceForTheLengthGives3)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 0, 0, 1}));
    EXPECT_EQ(drvPpcSocketRecvPeek(socket_.get(), nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(log_.Lines().size(), 1u);
    EXPECT_EQ(WaitingBytes(socket_), 4);
}

// ---- drvPpcSocketRecv ----

TEST_F(SocketIoTest, RecvReadsOneFrameAndLeavesTheNext)
{
    ASSERT_TRUE(WriteAll(peer_, kTenFrame));
    ASSERT_TRUE(WriteAll(peer_, FrameBytes({7})));
    EXPECT_EQ(Receive(10), PPC_OK);
    EXPECT_EQ(got_, 10u);
    EXPECT_EQ(buffer_, kTen);
    EXPECT_EQ(Receive(1), PPC_OK);
    EXPECT_EQ(buffer_, Bytes{7});
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(SocketIoTest, RecvGoesOnAfterPartialReads)
{
    ASSERT_TRUE(WriteAll(peer_, kTenFrame));
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([](uint64_t, int fd, void* buffer, size_t size, int flags) -> std::optional<ssize_t> {
        return recv(fd, buffer, std::min<size_t>(size, 4), flags);
    });
    EXPECT_EQ(Receive(10), PPC_OK);
    EXPECT_EQ(got_, 10u);
    EXPECT_EQ(buffer_, kTen);
    EXPECT_EQ(recvCalls.Count(), 4u) << "the length, then 4, 4 and 2 bytes";
}

TEST_F(SocketIoTest, RecvIsRepeatedWhileInterrupted)
{
    ASSERT_TRUE(WriteAll(peer_, kTenFrame));
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([](uint64_t number, int, void*, size_t, int) -> std::optional<ssize_t> {
        errno = EINTR;
        return number % 3 != 0 ? std::optional<ssize_t>(-1) : std::nullopt;
    });
    EXPECT_EQ(Receive(10), PPC_OK);
    EXPECT_EQ(buffer_, kTen);
    EXPECT_EQ(recvCalls.Count(), 6u);
}

TEST_F(SocketIoTest, RecvOfAnEmptyFrameGivesNoBytes)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 0, 0, 0, 5}));
    EXPECT_EQ(Receive(0), PPC_OK);
    EXPECT_EQ(got_, 0u);
    EXPECT_EQ(WaitingBytes(socket_), 1);
}

TEST_F(SocketIoTest, RecvRefusesBadArgumentsBeforeReading)
{
    ASSERT_TRUE(WriteAll(peer_, kTenFrame));
    char buffer[10];
    EXPECT_EQ(drvPpcSocketRecv(socket_.get(), nullptr, 10, &got_), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(drvPpcSocketRecv(socket_.get(), nullptr, -1, nullptr), PPC_ERR_INVALID_VALUE);
    const auto line = ErrorLine("drvPpcSocketRecv", "null pBuf");
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
    EXPECT_EQ(drvPpcSocketRecv(socket_.get(), buffer, 10, nullptr), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(got_, kUntouched);
    EXPECT_EQ(WaitingBytes(socket_), 14);
}

// The length field is read and compared first, and no payload ever fits.
TEST_F(SocketIoTest, NegativeExpectedLengthConsumesTheLengthOnly)
{
    const struct {
        Bytes field;
        int expected;
        const char* text;
    } cases[] = {{{0, 0, 0, 2}, -1, "2 != -1"},
                 {{0, 0, 0, 0}, INT_MIN, "0 != -2147483648"},
                 {{0xFF, 0xFF, 0xFF, 0xFF}, -1, "-1 != -1"},
                 {{0x80, 0, 0, 0}, INT_MIN, "-2147483648 != -2147483648"}};
    for (const auto& wanted : cases) {
        std::tie(socket_, peer_) = gaktest::SocketPair();
        log_.Clear();
        ASSERT_TRUE(WriteAll(peer_, wanted.field));
        ASSERT_TRUE(WriteAll(peer_, {7, 8}));
        char buffer[2] = {1, 2};
        EXPECT_EQ(drvPpcSocketRecv(socket_.get(), buffer, wanted.expected, &got_), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(ErrorLine("drvPpcSocketRecv", std::string("recv Msg length not equal: ") + wanted.text +
                                                                  SockText(socket_.get()))));
        EXPECT_EQ(WaitingBytes(socket_), 2);
        EXPECT_THAT(buffer, ElementsAre(1, 2));
    }
    EXPECT_EQ(got_, kUntouched);
}

TEST_F(SocketIoTest, NegativeExpectedLengthComesAfterTheEndAndAFailure)
{
    char buffer[1];
    errno = kEarlierErrno;
    EXPECT_EQ(drvPpcSocketRecv(-1, buffer, -1, &got_), PPC_ERR_RECV);
    peer_.Reset();
    errno = kEarlierErrno;
    EXPECT_EQ(drvPpcSocketRecv(socket_.get(), buffer, -1, &got_), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecv", RecvErrorText(-1, EBADF)),
                                          ErrorLine("drvPpcSocketRecv", ClosedText(socket_.get()))));
}

TEST_F(SocketIoTest, LengthMismatchGives3AndConsumesTheLength)
{
    const struct {
        Bytes field;
        const char* text;
    } cases[] = {{{0, 0, 0, 9}, "9"}, {{0, 0, 0, 11}, "11"}, {{0xFF, 0xFF, 0xFF, 0xFF}, "-1"}};
    for (const auto& wanted : cases) {
        log_.Clear();
        ASSERT_TRUE(WriteAll(peer_, wanted.field));
        EXPECT_EQ(Receive(10), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(ErrorLine("drvPpcSocketRecv", std::string("recv Msg length not equal: ") + wanted.text +
                                                                  " != 10" + SockText(socket_.get()))));
        EXPECT_EQ(WaitingBytes(socket_), 0);
    }
    EXPECT_EQ(got_, kUntouched);
}

// Bytes of the length field that did not come count as zeros behind those that did.
TEST_F(SocketIoTest, PartOfALengthFieldIsTakenAsTheWholeField)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 5}));
    EXPECT_EQ(Receive(5), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecv", "recv Msg length not equal: 327680 != 5" +
                                                                            SockText(socket_.get()))));
    ASSERT_TRUE(WriteAll(peer_, {0, 0}));
    EXPECT_EQ(Receive(0), PPC_OK);
    EXPECT_EQ(got_, 0u);
}

TEST_F(SocketIoTest, RecvAtTheEndGives25WithAnErrorLine)
{
    peer_.Reset();
    EXPECT_EQ(Receive(10), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecv", ClosedText(socket_.get()))));
    EXPECT_EQ(got_, kUntouched);
}

TEST_F(SocketIoTest, EndInsideThePayloadGives25)
{
    ASSERT_TRUE(WriteAll(peer_, {0, 0, 0, 10, 1, 2, 3}));
    peer_.Reset();
    EXPECT_EQ(Receive(10), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecv", ClosedText(socket_.get()))));
    EXPECT_EQ(got_, kUntouched);
}

TEST_F(SocketIoTest, FailedReadOfLengthOrPayloadGives26)
{
    ASSERT_TRUE(WriteAll(peer_, kTenFrame));
    CountingHook<calls::Recv> recvCalls;
    for (const uint64_t failing : {1u, 2u}) {
        log_.Clear();
        recvCalls.Reset();
        recvCalls.FailCall(failing, -1, ECONNRESET);
        EXPECT_EQ(Receive(10), PPC_ERR_RECV);
        EXPECT_EQ(recvCalls.Count(), failing);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecv", RecvErrorText(socket_.get(), ECONNRESET))));
    }
    EXPECT_EQ(got_, kUntouched);
}

// ---- drvPpcSend ----

class MessageIoTest : public DriverTest {
protected:
    MessageIoTest() { log_.Clear(); }

    int Send(const Message& message) { return drvPpcSend(connection_.session, message.msg, 0); }

    int Receive(const Message& message)
    {
        errno = kEarlierErrno;
        return drvPpcRecv(connection_.session, message.msg, 0x100000, 0, &count_);
    }

    static constexpr uint32_t kUntouched = 0xABCDEF01;

    Connection connection_;
    const int fd_ = connection_.FdNumber();
    uint32_t count_ = kUntouched;
};

TEST_F(MessageIoTest, SendPutsTheBufferOnTheWireAsOneFrame)
{
    const Message message(connection_.session, kTen);
    EXPECT_EQ(Send(message), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(connection_.peer, 14, 5s)), Hex(kTenFrame));
    EXPECT_EQ(WaitingBytes(connection_.peer), 0);
    EXPECT_EQ(message.Content(), kTen) << "the buffer stays attached";
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(MessageIoTest, SendOfOneMegabyteArrivesWhole)
{
    Bytes payload(1 << 20);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    }
    const Message message(connection_.session, payload);
    std::future<int> sender = std::async(std::launch::async, [&] { return Send(message); });
    EXPECT_TRUE(gaktest::ReadFrame(connection_.peer, 10s) == payload);
    EXPECT_EQ(sender.get(), PPC_OK);
}

// Each case fails several checks: the first one in order speaks.
TEST_F(MessageIoTest, SendChecksItsArgumentsInOrder)
{
    const Message empty(connection_.session);
    const Message full(connection_.session, kTen);
    const struct {
        PpcSession* session;
        PpcMsg* msg;
        uint32_t flag;
        const char* text;
    } cases[] = {{nullptr, nullptr, 1, "null session"},
                 {connection_.session, nullptr, 1, "illegal msg"},
                 {connection_.session, empty.msg, 1, "flag just support 0, for future feature, 1"},
                 {connection_.session, full.msg, 1, "flag just support 0, for future feature, 1"},
                 {connection_.session, full.msg, 0xFFFFFFFF, "flag just support 0, for future feature, -1"},
                 {connection_.session, empty.msg, 0, "illegal msg"}};
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(drvPpcSend(wanted.session, wanted.msg, wanted.flag), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSend", wanted.text)));
    }
    EXPECT_EQ(WaitingBytes(connection_.peer), 0);
}

TEST_F(MessageIoTest, SendWithFlagOneGives3AndSendsNothing)
{
    const Message message(connection_.session, kTen);
    EXPECT_EQ(drvPpcSend(connection_.session, message.msg, 1), PPC_ERR_INVALID_VALUE);
    EXPECT_EQ(WaitingBytes(connection_.peer), 0);
    EXPECT_EQ(Send(message), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(connection_.peer, 14, 5s)), Hex(kTenFrame));
}

TEST_F(MessageIoTest, SendChecksNeitherCountNorMagic)
{
    const Message message(connection_.session, kTen);
    const uint32_t wrong = 7;
    memcpy(static_cast<void*>(message.msg), &wrong, sizeof(wrong));
    memcpy(static_cast<void*>(connection_.session), &wrong, sizeof(wrong));
    EXPECT_EQ(Send(message), PPC_OK);
    EXPECT_EQ(Hex(ReadExactly(connection_.peer, 14, 5s)), Hex(kTenFrame));
    const uint32_t one = 1;
    memcpy(static_cast<void*>(message.msg), &one, sizeof(one));
}

TEST_F(MessageIoTest, FailedSendGives27WithALineOfEachLayer)
{
    const Message message(connection_.session, kTen);
    connection_.peer.Reset();
    EXPECT_EQ(Send(message), PPC_ERR_SEND);
    const std::string cause = "send (sockfd " + std::to_string(fd_) + ")error: " + ErrnoText(EPIPE) + "  -1 10 4";
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSocketSend", cause), ErrorLine("drvPpcSend", "ppc send message error")));
}

// The log may block, or send on the same session.
TEST_F(MessageIoTest, FailedSendHoldsNoMutexWhenItLogs)
{
    const Message message(connection_.session, kTen);
    connection_.peer.Reset();
    const HeldMutexes held;
    std::vector<int> heldAtLine;
    CountingHook<ErrorLineCall> lines;
    lines.OnCall([&](uint64_t, int, const char*) {
        heldAtLine.push_back(HeldMutexes::OfThisThread());
        return std::optional<int>(0);
    });
    EXPECT_EQ(Send(message), PPC_ERR_SEND);
    EXPECT_THAT(heldAtLine, ElementsAre(0, 0));
}

TEST_F(MessageIoTest, SendOnAnEndedSessionTouchesNoSendMutex)
{
    const Message message(connection_.session, kTen);
    connection_.End();
    CountingHook<calls::MutexLock> locks;
    EXPECT_EQ(Send(message), PPC_ERR_SEND);
    EXPECT_EQ(locks.Count(), 0u);
}

TEST_F(MessageIoTest, ShortSendEndsTheSessionForBothSides)
{
    const Message message(connection_.session, kTen);
    {
        CountingHook<calls::Writev> writevCalls;
        writevCalls.OnCall([](uint64_t, int fd, const iovec* entries, int) -> std::optional<ssize_t> {
            return writev(fd, entries, 1);
        });
        EXPECT_EQ(Send(message), PPC_ERR_SEND);
    }
    EXPECT_EQ(Send(message), PPC_ERR_SEND);
    EXPECT_EQ(Hex(ReadExactly(connection_.peer, 4, 5s)), "00 00 00 0A");
    EXPECT_TRUE(ExpectEof(connection_.peer, 5s));
    EXPECT_EQ(Receive(Message(connection_.session)), PPC_ERR_SOCKET_CLOSED);
}

// Nothing was cut: the peer may still get whole frames.
TEST_F(MessageIoTest, SendThatWritesNothingLeavesTheSessionOpen)
{
    const Message message(connection_.session, kTen);
    {
        CountingHook<calls::Writev> writevCalls;
        writevCalls.FailCall(1, 0, 0);
        EXPECT_EQ(Send(message), PPC_ERR_SEND);
    }
    EXPECT_EQ(Send(message), PPC_OK);
    EXPECT_EQ(ReadFrame(connection_.peer, 5s), kTen);
}

// ---- drvPpcRecv ----

// Each case fails several checks: the first one in order speaks.
TEST_F(MessageIoTest, RecvChecksItsArgumentsInOrder)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    const struct {
        PpcSession* session;
        PpcMsg* msg;
        uint32_t* count;
        const char* text;
    } cases[] = {{nullptr, nullptr, nullptr, "null session"},
                 {connection_.session, nullptr, &count_, "null ptr"},
                 {connection_.session, message.msg, nullptr, "null ptr"}};
    for (const auto& wanted : cases) {
        log_.Clear();
        EXPECT_EQ(drvPpcRecv(wanted.session, wanted.msg, 0, 0, wanted.count), PPC_ERR_INVALID_VALUE);
        EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcRecv", wanted.text)));
    }
    EXPECT_EQ(count_, kUntouched);
    EXPECT_EQ(Receive(message), PPC_OK) << "nothing had been read";
}

TEST_F(MessageIoTest, RecvTakesFramesOffOneByOne)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    ASSERT_TRUE(WriteAll(connection_.peer, FrameBytes({1})));
    const Message message(connection_.session);
    EXPECT_EQ(Receive(message), PPC_OK);
    EXPECT_EQ(count_, 1u);
    EXPECT_EQ(message.Content(), kTen);
    ASSERT_EQ(drvPpcReuseMsg(message.msg), PPC_OK);
    EXPECT_EQ(Receive(message), PPC_OK);
    EXPECT_EQ(message.Content(), Bytes{1});
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(MessageIoTest, RecvWaitsForTheRestOfAPayload)
{
    const Message message(connection_.session);
    std::future<int> receiver = std::async(std::launch::async, [&] { return Receive(message); });
    for (const Bytes& part : {Bytes{0, 0, 0, 3}, Bytes{1}, Bytes{2}, Bytes{3}}) {
        ASSERT_TRUE(WriteAll(connection_.peer, part));
        ASSERT_TRUE(gaktest::WaitUntil(
            [&] {
                int unread = -1;
                return ioctl(fd_, FIONREAD, &unread) == 0 && unread == 0;
            },
            5s));
    }
    EXPECT_EQ(receiver.get(), PPC_OK);
    EXPECT_EQ(message.Content(), Bytes({1, 2, 3}));
}

TEST_F(MessageIoTest, ReservedArgumentsAreIgnored)
{
    const Message message(connection_.session);
    for (const uint32_t reserved : {0u, 1u, 0xFFFFFFFFu}) {
        ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
        EXPECT_EQ(drvPpcRecv(connection_.session, message.msg, reserved, reserved, &count_), PPC_OK);
        EXPECT_EQ(message.Content(), kTen);
        ASSERT_EQ(drvPpcReuseMsg(message.msg), PPC_OK);
    }
}

TEST_F(MessageIoTest, RecvAllocatesThePayloadSizeOnce)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    CountingHook<calls::Malloc> mallocCalls;
    std::vector<size_t> sizes;
    mallocCalls.OnCall([&](uint64_t, size_t size) -> std::optional<void*> {
        sizes.push_back(size);
        return std::nullopt;
    });
    EXPECT_EQ(Receive(message), PPC_OK);
    EXPECT_THAT(sizes, ElementsAre(10u));
}

TEST_F(MessageIoTest, FrameAboveTheLimitGives6AndStaysInTheSocket)
{
    const struct {
        Bytes field;
        const char* text;
    } cases[] = {{{0x40, 0, 0, 1}, "1073741825"}, {{0x80, 0, 0, 0}, "-2147483648"}, {{255, 255, 255, 255}, "-1"}};
    for (const auto& wanted : cases) {
        Connection connection;
        const Message message(connection.session);
        ASSERT_TRUE(WriteAll(connection.peer, wanted.field));
        log_.Clear();
        const auto line = ErrorLine(
            "drvPpcRecv", std::string("msg length too large: ") + wanted.text + "(support: 1073741824 Byte) ");
        EXPECT_EQ(drvPpcRecv(connection.session, message.msg, 0, 0, &count_), PPC_ERR_NO_RESOURCE);
        EXPECT_EQ(drvPpcRecv(connection.session, message.msg, 0, 0, &count_), PPC_ERR_NO_RESOURCE);
        EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
        EXPECT_EQ(message.Address(), nullptr);
        EXPECT_TRUE(IsOpen(connection.FdNumber()));
    }
    EXPECT_EQ(count_, kUntouched);
}

TEST_F(MessageIoTest, FrameOfTheLimitIsAccepted)
{
    ASSERT_TRUE(WriteAll(connection_.peer, {0x40, 0, 0, 0}));
    const Message message(connection_.session);
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([](uint64_t, int, void*, size_t size, int) -> std::optional<ssize_t> {
        return size > 4 ? std::optional<ssize_t>(size) : std::nullopt;  // spares the machine a gigabyte
    });
    EXPECT_EQ(Receive(message), PPC_OK);
    EXPECT_EQ(message.Length(), 0x40000000u);
    EXPECT_EQ(count_, 1u);
}

TEST_F(MessageIoTest, EmptyFrameGives0AgainAndAgainWithoutABuffer)
{
    ASSERT_TRUE(WriteAll(connection_.peer, {0, 0, 0, 0}));
    const Message message(connection_.session);
    CountingHook<calls::Malloc> mallocCalls;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Receive(message), PPC_OK);
    }
    EXPECT_EQ(mallocCalls.Count(), 0u);
    EXPECT_EQ(count_, kUntouched);
    EXPECT_EQ(message.Address(), nullptr);
    int unread = 0;
    ASSERT_EQ(ioctl(fd_, FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 4);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(MessageIoTest, PeerClosingBeforeAFrameGives25)
{
    connection_.peer.Reset();
    const Message message(connection_.session);
    EXPECT_EQ(Receive(message), PPC_ERR_SOCKET_CLOSED);
    EXPECT_THAT(log_.Lines(), ElementsAre(InfoLine("drvPpcSocketRecvPeek", ClosedText(fd_))));
    EXPECT_EQ(count_, kUntouched);
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_TRUE(IsOpen(fd_));
}

TEST_F(MessageIoTest, PartOfALengthFieldWaitingGives3)
{
    ASSERT_TRUE(WriteAll(connection_.peer, {0, 0}));
    EXPECT_EQ(Receive(Message(connection_.session)), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecvPeek", "length should be: 4" + SockText(fd_))));
    EXPECT_EQ(count_, kUntouched);
}

TEST_F(MessageIoTest, FailedPeekOfAMessageGives26)
{
    CountingHook<calls::Recv> recvCalls;
    recvCalls.FailCall(1, -1, ECONNRESET);
    EXPECT_EQ(Receive(Message(connection_.session)), PPC_ERR_RECV);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcSocketRecvPeek", RecvErrorText(fd_, ECONNRESET))));
    EXPECT_TRUE(IsOpen(fd_));
}

// The ways in which a payload cannot be read, all of which give 26, free the buffer and leave the socket open.
struct ReadFailure {
    const char* name;
    Bytes sent;
    bool closesPeer;
    std::function<std::optional<ssize_t>(uint64_t number, void* buffer)> onRecv;
    std::string cause;  // without the socket
    int code;
};

void PrintTo(const ReadFailure& failure, std::ostream* out)
{
    *out << failure.name;
}

class PayloadFailureTest : public MessageIoTest, public testing::WithParamInterface<ReadFailure> {};

TEST_P(PayloadFailureTest, Gives26AndEmptiesTheDescriptor)
{
    const ReadFailure& failure = GetParam();
    ASSERT_TRUE(WriteAll(connection_.peer, failure.sent));
    if (failure.closesPeer) {
        connection_.peer.Reset();
    }
    const Message message(connection_.session);
    CountingHook<calls::Recv> recvCalls;
    recvCalls.OnCall([&](uint64_t number, int, void* buffer, size_t, int) { return failure.onRecv(number, buffer); });
    const FreeCounter frees;
    EXPECT_EQ(Receive(message), PPC_ERR_RECV);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSocketRecv", failure.cause + SockText(fd_)),
                            ErrorLine("drvPpcRecv", "socket recv mesg fail(session id:" + std::to_string(fd_) +
                                                        " errno: " + std::to_string(failure.code) + ")")));
    EXPECT_EQ(frees.Count(), 1u);
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_EQ(message.Length(), 0u);
    EXPECT_EQ(count_, kUntouched);
    EXPECT_EQ(connection_.FdNumber(), fd_);
    EXPECT_TRUE(IsOpen(fd_));
}

std::optional<ssize_t> Undisturbed(uint64_t, void*)
{
    return std::nullopt;
}

std::optional<ssize_t> ThirdCallFails(uint64_t number, void*)
{
    errno = number == 3 ? ECONNRESET : errno;
    return number == 3 ? std::optional<ssize_t>(-1) : std::nullopt;
}

std::optional<ssize_t> SecondCallFails(uint64_t number, void*)
{
    errno = number == 2 ? ENOTCONN : errno;
    return number == 2 ? std::optional<ssize_t>(-1) : std::nullopt;
}

std::optional<ssize_t> SecondLengthIsEleven(uint64_t number, void* buffer)
{
    if (number != 2) {
        return std::nullopt;
    }
    memcpy(buffer, "\0\0\0\v", 4);
    return 4;
}

INSTANTIATE_TEST_SUITE_P(, PayloadFailureTest,
                         testing::Values(ReadFailure{"PeerClosesInsideThePayload",
                                                     {0, 0, 0, 10, 1, 2},
                                                     true,
                                                     &Undisturbed,
                                                     "client connection closed: " + ErrnoText(kEarlierErrno),
                                                     25},
                                         ReadFailure{"PeerClosesAfterTheLength",
                                                     {0, 0, 0, 10},
                                                     true,
                                                     &Undisturbed,
                                                     "client connection closed: " + ErrnoText(kEarlierErrno),
                                                     25},
                                         ReadFailure{"PayloadReadFails", kTenFrame, false, &ThirdCallFails,
                                                     "recv error: " + ErrnoText(ECONNRESET), 26},
                                         ReadFailure{"LengthReadFails", kTenFrame, false, &SecondCallFails,
                                                     "recv error: " + ErrnoText(ENOTCONN), 26},
                                         ReadFailure{"LengthChangesAfterThePeek", kTenFrame, false,
                                                     &SecondLengthIsEleven, "recv Msg length not equal: 11 != 10", 3}),
                         [](const auto& failure) { return failure.param.name; });

// ---- Failures that close the session's socket ----

class ClosingFailureTest : public MessageIoTest {
protected:
    void ExpectSocketClosed()
    {
        EXPECT_EQ(connection_.FdNumber(), -1);
        EXPECT_FALSE(IsOpen(fd_));
        EXPECT_TRUE(ExpectEof(connection_.peer, 5s));
    }
};

TEST_F(ClosingFailureTest, RecvWithoutMemoryGives40AndClosesTheSocket)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    CountingHook<calls::Malloc> mallocCalls;
    mallocCalls.FailCall(1, nullptr, ENOMEM);
    EXPECT_EQ(Receive(message), PPC_ERR_NO_MEMORY);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcRecv", "malloc fail" + SockText(fd_))));
    EXPECT_EQ(message.Address(), nullptr);
    EXPECT_EQ(count_, kUntouched);
    ExpectSocketClosed();
}

TEST_F(ClosingFailureTest, RecvIntoAFullDescriptorGives6AndClosesTheSocket)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session, {1, 2, 3});
    const FreeCounter frees;
    EXPECT_EQ(Receive(message), PPC_ERR_NO_RESOURCE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAddMsgBuffer", "no available msg BD"),
                                          ErrorLine("drvPpcRecv", "qelPpcAddMsgBuffer fail, err(6)" + SockText(fd_))));
    EXPECT_EQ(frees.Count(), 1u);
    EXPECT_EQ(message.Content(), Bytes({1, 2, 3}));
    EXPECT_EQ(count_, kUntouched);
    ExpectSocketClosed();
}

TEST_F(ClosingFailureTest, RecvIntoABrokenDescriptorGives3AndClosesTheSocket)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    const uint32_t two = 2;
    const uint32_t one = 1;
    memcpy(static_cast<void*>(message.msg), &two, sizeof(two));
    const FreeCounter frees;
    EXPECT_EQ(Receive(message), PPC_ERR_INVALID_VALUE);
    EXPECT_THAT(log_.Lines(), ElementsAre(ErrorLine("drvPpcAddMsgBuffer", "invalid pMsg->count 2"),
                                          ErrorLine("drvPpcRecv", "qelPpcAddMsgBuffer fail, err(3)" + SockText(fd_))));
    EXPECT_EQ(frees.Count(), 1u);
    memcpy(static_cast<void*>(message.msg), &one, sizeof(one));
    ExpectSocketClosed();
}

TEST_F(ClosingFailureTest, SessionWithoutASocketFailsEveryCall)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    {
        CountingHook<calls::Malloc> mallocCalls;
        mallocCalls.FailCall(1, nullptr, ENOMEM);
        ASSERT_EQ(Receive(message), PPC_ERR_NO_MEMORY);
    }
    const Message full(connection_.session, kTen);
    log_.Clear();
    EXPECT_EQ(Receive(message), PPC_ERR_RECV);
    EXPECT_EQ(Send(full), PPC_ERR_SEND);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(ErrorLine("drvPpcSocketRecvPeek", RecvErrorText(-1, EBADF)),
                            ErrorLine("drvPpcSocketSend", "send (sockfd -1)error: " + ErrnoText(EBADF) + "  -1 10 4"),
                            ErrorLine("drvPpcSend", "ppc send message error")));
}

TEST_F(ClosingFailureTest, SessionWithoutASocketIsEndedWithoutClosingAnything)
{
    ASSERT_TRUE(WriteAll(connection_.peer, kTenFrame));
    const Message message(connection_.session);
    CountingHook<calls::Malloc> mallocCalls;
    mallocCalls.FailCall(1, nullptr, ENOMEM);
    ASSERT_EQ(Receive(message), PPC_ERR_NO_MEMORY);
    ASSERT_EQ(dup2(STDERR_FILENO, fd_), fd_) << "the number belongs to somebody else now";
    log_.Clear();
    const size_t before = OpenDescriptors();
    connection_.End();
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(IsOpen(fd_));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(InfoLine("drvPpcSessionDestroy", "Ppc Destroy session -1, pid " + PidText())));
    close(fd_);
}

}  // namespace
