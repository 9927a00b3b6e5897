#include "raw_peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

namespace gaktest {
namespace {

using namespace std::chrono_literals;

constexpr int kServerId = 7;

TEST(FdTest, ClosesOnceAndMoves)
{
    int number = -1;
    {
        Fd first(open("/dev/null", O_RDONLY));
        ASSERT_TRUE(first.valid());
        number = first.get();
        Fd second(std::move(first));
        EXPECT_EQ(second.get(), number);
        EXPECT_NE(fcntl(number, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

TEST(RawPeerTest, ConnectsToAListenerAtTheFixedPath)
{
    EXPECT_EQ(SocketPath(kServerId), "/home/KrovaUser/qel_ppc/sock_server_7");
    Fd listener = RawListen(kServerId);
    ASSERT_TRUE(listener.valid());
    EXPECT_EQ(access(SocketPath(kServerId).c_str(), F_OK), 0);
    Fd worker = RawConnect(kServerId);
    ASSERT_TRUE(worker.valid());
    Fd daemon = RawAccept(listener, 5s);
    ASSERT_TRUE(daemon.valid());
    ASSERT_TRUE(WriteAll(worker, {1, 2, 3}));
    EXPECT_EQ(ReadExactly(daemon, 3, 5s), (Bytes{1, 2, 3}));
}

TEST(RawPeerTest, ConnectWithoutAListenerIsInvalid)
{
    EXPECT_FALSE(RawConnect(kServerId + 1).valid());
    EXPECT_EQ(errno, ENOENT);
}

TEST(RawPeerTest, ASecondListenerTakesThePathOver)
{
    Fd first = RawListen(kServerId);
    Fd second = RawListen(kServerId);
    ASSERT_TRUE(second.valid());
    Fd worker = RawConnect(kServerId);
    EXPECT_FALSE(RawAccept(first, 10ms).valid());
    EXPECT_TRUE(RawAccept(second, 5s).valid());
}

TEST(RawPeerTest, ReadExactlyReturnsWhatCameBeforeTheEndOrTheDeadline)
{
    auto [near, far] = SocketPair();
    ASSERT_TRUE(WriteAll(near, {1, 2}));
    EXPECT_EQ(ReadExactly(far, 3, 10ms), (Bytes{1, 2}));
    ASSERT_TRUE(WriteAll(near, {3}));
    near.Reset();
    EXPECT_EQ(ReadExactly(far, 3, 5s), (Bytes{3}));
}

TEST(RawPeerTest, ReadExactlyJoinsPieces)
{
    auto [near, far] = SocketPair();
    std::thread writer([&socket = near] {
        const Bytes half(300000, 5);
        EXPECT_TRUE(WriteAll(socket, half));
        EXPECT_TRUE(WriteAll(socket, half));
    });
    EXPECT_EQ(ReadExactly(far, 600000, 30s), Bytes(600000, 5));
    writer.join();
}

TEST(RawPeerTest, ExpectEofTellsOpenDataAndEndApart)
{
    auto [near, far] = SocketPair();
    EXPECT_FALSE(ExpectEof(far, 10ms));
    ASSERT_TRUE(WriteAll(near, {9}));
    EXPECT_FALSE(ExpectEof(far, 5s));
    near.Reset();
    EXPECT_TRUE(ExpectEof(far, 5s));
}

TEST(RawPeerTest, ResetCountsAsTheEnd)
{
    auto [near, far] = SocketPair();
    ASSERT_TRUE(WriteAll(far, {1}));
    near.Reset();  // with a byte unread
    EXPECT_TRUE(ExpectEof(far, 5s));
}

TEST(RawPeerTest, WriteToAClosedPeerFailsWithoutASignal)
{
    auto [near, far] = SocketPair();
    far.Reset();
    EXPECT_FALSE(WriteAll(near, {1}));
}

TEST(RawMessageTest, EmptyMessageIsAFrameOfEightBytes)
{
    EXPECT_EQ(Hex(PpcFrame({})), "00 00 00 04 00 00 00 00");
}

TEST(RawMessageTest, EveryFieldHasItsBytes)
{
    const RawMessage message{2, 1, 19280, 1, 300, 0xFFFFFFFF, {{"a.so", ""}}};
    EXPECT_EQ(Hex(PpcFrame(message)),
              "00 00 00 21 1D 00 00 00 "
              "08 02 10 01 18 D0 96 01 20 01 28 AC 02 30 FF FF FF FF 0F "
              "3A 08 0A 04 61 2E 73 6F 0A 00");
}

TEST(RawMessageTest, PresentButEmptyListIsEncoded)
{
    RawMessage message;
    message.lib_names.emplace();
    EXPECT_EQ(Hex(EncodeMessage(message)), "3A 00");
    EXPECT_EQ(DecodeMessage({0x3A, 0x00}), message);
    EXPECT_FALSE(DecodeMessage({0x3A, 0x00}) == RawMessage{});
}

TEST(RawMessageTest, DecodesWhatItEncodes)
{
    const RawMessage message{6, 3, 4, 2, 123456, 1, {{"x", "a longer name"}}};
    EXPECT_EQ(DecodePayload(PpcPayload(message)), message);
}

TEST(RawMessageTest, BrokenBytesAreRefused)
{
    EXPECT_FALSE(DecodePayload({0, 0, 0}).has_value());
    EXPECT_FALSE(DecodePayload({1, 0, 0, 0}).has_value());           // inner length too long
    EXPECT_FALSE(DecodePayload({0, 0, 0, 0, 8}).has_value());        // byte left over
    EXPECT_FALSE(DecodeMessage({0x08}).has_value());                 // number missing
    EXPECT_FALSE(DecodeMessage({0x08, 0x80}).has_value());           // number cut
    EXPECT_FALSE(DecodeMessage({0x40, 0x01}).has_value());           // field 8
    EXPECT_FALSE(DecodeMessage({0x0A, 0x00}).has_value());           // field 1 with another wire type
    EXPECT_FALSE(DecodeMessage({0x3A, 0x05, 0x0A}).has_value());     // list longer than the message
    EXPECT_FALSE(DecodeMessage({0x3A, 0x02, 0x0A, 9}).has_value());  // name longer than the list
    EXPECT_FALSE(DecodeMessage({0x3A, 0x02, 0x12, 0}).has_value());  // another field in the list
}

TEST(RawMessageTest, ReadsFramesFromASocket)
{
    auto [near, far] = SocketPair();
    RawMessage message;
    message.src_id = 2;
    ASSERT_TRUE(WriteAll(near, PpcFrame(message)));
    ASSERT_TRUE(WriteAll(near, FrameBytes({7, 8})));
    ASSERT_TRUE(WriteAll(near, {0, 0, 0, 9, 1}));
    near.Reset();
    EXPECT_EQ(ReadPpcFrame(far, 5s), message);
    EXPECT_EQ(ReadFrame(far, 5s), (Bytes{7, 8}));
    EXPECT_FALSE(ReadFrame(far, 5s).has_value());
}

}  // namespace
}  // namespace gaktest
