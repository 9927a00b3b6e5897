#include <csignal>
#include <filesystem>

#include "tool.h"

namespace gaktest {
namespace {

constexpr char kCapture[] = "/home/trace.pcap";

// At least so long is the pause in front of the last message of the first worker.
constexpr std::chrono::milliseconds kPause{150};

// Records two workers: the first sends two messages and gets one, the second sends one.
void Record(const Fd& listener)
{
    Tool tap(kGakppctl, {"tap", "--write", kCapture});
    ASSERT_TRUE(tap.WaitForErr("in place"));
    for (uint32_t device = 0; device < 2; ++device) {
        const Fd worker = RawConnect(kServer);
        ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, device))));
        const Fd daemon = RawAccept(listener, kLimit);
        ASSERT_TRUE(ReadPpcFrame(daemon, kLimit).has_value());
        if (device == 0) {
            ASSERT_TRUE(WriteAll(daemon, PpcFrame(FromWorker(5, device))));
            ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
            ASSERT_FALSE(WaitReadable(daemon, kPause)) << "a pause for the recording";
            ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2, device))));
            ASSERT_TRUE(ReadPpcFrame(daemon, kLimit).has_value());
        }
    }
    tap.Kill(SIGINT);
    ASSERT_TRUE(tap.Finish().ExitedWith(0)) << tap.err();
}

class ReplayTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(Record(listener_)); }

    Fd listener_ = RawListen(kServer);
};

TEST_F(ReplayTest, SendsWhatTheWorkersSentAgain)
{
    const auto begin = std::chrono::steady_clock::now();
    Tool replay(kGakppctl, {"replay", kCapture, "--json"});
    const Fd first = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(first, kLimit), FromWorker(0, 0));
    ASSERT_TRUE(WriteAll(first, PpcFrame(FromWorker(5))));
    EXPECT_EQ(ReadPpcFrame(first, kLimit), FromWorker(2, 0));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Stretched(kPause));
    EXPECT_TRUE(ExpectEof(first, kLimit));
    const Fd second = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(second, kLimit), FromWorker(0, 1));
    EXPECT_TRUE(replay.Finish().ExitedWith(0)) << replay.err();
    EXPECT_EQ(replay.out(), "{\"connections\":2,\"sent\":3,\"received\":1,\"left_out\":0}\n");
    EXPECT_TRUE(FitsSchema(replay.out(), "replay"));
}

TEST_F(ReplayTest, OneConnectionCanBeChosen)
{
    Tool replay(kGakppctl, {"replay", kCapture, "--connection", "2", "--speed", "0", "--wait", "0"});
    const Fd only = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(only, kLimit), FromWorker(0, 1));
    EXPECT_TRUE(replay.Finish().ExitedWith(0));
    EXPECT_EQ(replay.out(), "1 connection(s), 1 message(s) sent, 0 received\n");
}

TEST_F(ReplayTest, ConnectionThatIsNotInTheCaptureFails)
{
    const Outcome outcome = Ctl({"replay", kCapture, "--connection", "7"});
    EXPECT_TRUE(outcome.status.ExitedWith(1)) << outcome.status;
    EXPECT_EQ(outcome.err, "gakppctl: the capture has no connection 7\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(WaitReadable(listener_, std::chrono::milliseconds(0))) << "it has connected";
}

TEST_F(ReplayTest, TruncatedCaptureIsSentAsFarAsItGoesAndFails)
{
    const auto size = std::filesystem::file_size(kCapture);
    std::filesystem::resize_file(kCapture, size - 1);  // in the record of the second connection's end
    Tool replay(kGakppctl, {"replay", kCapture, "--speed", "0", "--wait", "0"});
    const Fd first = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(first, kLimit), FromWorker(0, 0));
    EXPECT_EQ(ReadPpcFrame(first, kLimit), FromWorker(2, 0));
    const Fd second = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(second, kLimit), FromWorker(0, 1));
    EXPECT_TRUE(replay.Finish().ExitedWith(1));
    EXPECT_EQ(replay.out(), "2 connection(s), 3 message(s) sent, 0 received\n");
    EXPECT_EQ(replay.err(), "gakppctl: the capture ends inside a record: it is incomplete\n");
}

TEST_F(ReplayTest, ConnectionThatTheDaemonClosesFails)
{
    Tool replay(kGakppctl, {"replay", kCapture});
    Fd first = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(first, kLimit), FromWorker(0, 0));
    first.Reset();
    EXPECT_TRUE(replay.Finish().ExitedWith(1));
    EXPECT_NE(replay.err().find("the daemon has closed connection 1"), std::string::npos) << replay.err();
}

TEST_F(ReplayTest, SpeedStretchesThePauses)
{
    const auto begin = std::chrono::steady_clock::now();
    Tool replay(kGakppctl, {"replay", kCapture, "--connection", "1", "--speed", "0.25"});
    const Fd only = RawAccept(listener_, kLimit);
    EXPECT_EQ(ReadPpcFrame(only, kLimit), FromWorker(0, 0));
    EXPECT_EQ(ReadPpcFrame(only, kLimit), FromWorker(2, 0));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 4 * Stretched(kPause));
    EXPECT_TRUE(replay.Finish().ExitedWith(0));
    EXPECT_EQ(replay.out(), "1 connection(s), 2 message(s) sent, 0 received\n") << "the second one as well";
}

TEST_F(ReplayTest, NoDaemonIsTold)
{
    listener_.Reset();
    EXPECT_TRUE(Ctl({"replay", kCapture, "--timeout", "1"}).status.ExitedWith(3));
}

TEST(ReplayStandaloneTest, WhatIsNoCaptureIsRefused)
{
    const Outcome outcome = Ctl({"replay", "/proc/version"});
    EXPECT_TRUE(outcome.status.ExitedWith(1));
    EXPECT_NE(outcome.err.find("not a capture"), std::string::npos) << outcome.err;
    EXPECT_TRUE(Ctl({"replay", "/nowhere"}).status.ExitedWith(1));
    EXPECT_EQ(Ctl({"replay", "/home"}).err, "gakppctl: /home: Is a directory\n");
    EXPECT_TRUE(Ctl({"replay"}).status.ExitedWith(2));
    EXPECT_TRUE(Ctl({"replay", "/proc/version", "--speed", "-1"}).status.ExitedWith(2));
}

}  // namespace
}  // namespace gaktest
