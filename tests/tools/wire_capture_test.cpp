// gakppcd --write: what the daemon records of its connections.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <regex>

#include "tool.h"

namespace gaktest {
namespace {

constexpr char kCapture[] = "/home/daemon.pcap";

class WireCaptureTest : public testing::Test {
protected:
    void Start(const std::string& path = kCapture)
    {
        daemon_ = std::make_unique<Tool>(kGakppcd, std::vector<std::string>{"--write", path});
        ASSERT_TRUE(daemon_->WaitForOut("SERVING"));
    }

    ExitStatus Stop()
    {
        daemon_->Kill(SIGTERM);
        return daemon_->Finish();
    }

    std::unique_ptr<Tool> daemon_;
};

std::string Decoded(const std::string& path)
{
    return Ctl({"decode", "--hex", path}).out;
}

// Without the times, and without the processes: a tap is the daemon's peer and the worker's.
std::string Content(const std::string& decoded)
{
    const std::string timeless = std::regex_replace(decoded, std::regex("[0-9T:.-]+Z #"), "#");
    return std::regex_replace(timeless, std::regex("pid [0-9]+ uid [0-9]+"), "");
}

// A message with a field that the schema does not have.
Bytes FrameWithUnknownFields(const RawMessage& message)
{
    Bytes encoded = EncodeMessage(message);
    const Bytes unknown{0xF8, 0x07, 0xFF, 0xFF, 0x03, 0xFA, 0x07, 0x02, 0x41, 0x42};
    encoded.insert(encoded.end(), unknown.begin(), unknown.end());
    Bytes payload{static_cast<uint8_t>(encoded.size()), 0, 0, 0};
    payload.insert(payload.end(), encoded.begin(), encoded.end());
    return FrameBytes(payload);
}

TEST_F(WireCaptureTest, HoldsTheBytesThatATapRecords)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    Tool tap(kGakppctl, {"tap", "--write", "/home/tap.pcap"});
    ASSERT_TRUE(tap.WaitForErr("in place"));
    Fd worker = RawConnect(kServer);
    RawMessage request = FromWorker(3, 1);
    request.lib_names = {{"liba.so", "", "libb.so"}};
    for (const Bytes& frame : {FrameBytes({0, 0, 0, 0}), PpcFrame(FromWorker(0, 1)), PpcFrame(request),
                               FrameWithUnknownFields(FromWorker(2, 1))}) {
        ASSERT_TRUE(WriteAll(worker, frame));
    }
    ASSERT_TRUE(daemon_->WaitForOut("pid 4711 RUNNING heartbeats 1"));
    daemon_->Write("shutdown 1 4711\n");
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(1, 1))));
    ASSERT_TRUE(daemon_->WaitForOut("pid 4711 STOPPED"));
    worker.Reset();
    ASSERT_TRUE(tap.WaitForOut(" close\n"));
    ASSERT_TRUE(daemon_->WaitForOut("SOCKET_CLOSE"));
    tap.Kill(SIGTERM);
    EXPECT_TRUE(tap.Finish().ExitedWith(0)) << tap.err();
    EXPECT_TRUE(Stop().ExitedWith(0)) << daemon_->err();
    const std::string recorded = Decoded(kCapture);
    EXPECT_EQ(Content(recorded), Content(Decoded("/home/tap.pcap")));
    EXPECT_EQ(CountOf(recorded, "\n    "), 6U) << recorded;
    EXPECT_EQ(CountOf(recorded, "F807FFFF03FA07024142\n"), 1U) << "unknown fields";
    EXPECT_EQ(CountOf(recorded, "-- pid " + std::to_string(tap.pid()) + " uid 0 open\n"), 1U) << recorded;
}

TEST_F(WireCaptureTest, NamesTheRealProcesses)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    Fd worker = RawConnect(kServer);
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(0, 1))));
    ASSERT_TRUE(daemon_->WaitForOut("STARTED"));
    daemon_->Write("shutdown 1 4711\n");
    ASSERT_TRUE(ReadPpcFrame(worker, kLimit).has_value());
    worker.Reset();
    ASSERT_TRUE(daemon_->WaitForOut("LOST"));
    EXPECT_TRUE(Stop().ExitedWith(0)) << daemon_->err();
    const std::string recorded = Decoded(kCapture);
    const std::string self = "pid " + std::to_string(getpid()) + " uid 0 ";
    EXPECT_NE(recorded.find("#1 -- " + self + "open"), std::string::npos) << recorded;
    EXPECT_NE(recorded.find("#1 -> " + self + "START_RSP (claims pid 4711)"), std::string::npos);
    EXPECT_NE(recorded.find("#1 <- pid " + std::to_string(daemon_->pid()) + " uid 0 SHUTDOWN"), std::string::npos);
    EXPECT_NE(recorded.find("#1 -- " + self + "close"), std::string::npos);
}

// The server drops all of these without telling the daemon.
TEST_F(WireCaptureTest, HoldsWhatIsNoMessage)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::vector<Bytes> broken{PpcFrame(FromWorker(77)),     // a type that no worker may send
                                    FrameBytes({9, 0, 0, 0, 8}),  // an inner length that does not fit
                                    {0, 0, 0, 0},                 // a frame of length 0
                                    {0x7F, 0xFF, 0xFF, 0xFF, 1},  // a length above the limit
                                    {0, 0, 0, 9, 5, 0, 0, 0},     // a frame that ends early
                                    {0, 0, 1}};                   // less than a length field
    for (const Bytes& bytes : broken) {
        const Fd worker = RawConnect(kServer);
        ASSERT_TRUE(WriteAll(worker, bytes));
        ASSERT_EQ(shutdown(worker.get(), SHUT_WR), 0);
        ExpectEof(worker, std::chrono::milliseconds(500));  // not of the first one, which stays open
    }
    EXPECT_TRUE(Stop().ExitedWith(0)) << daemon_->err();
    const std::string content = Content(Decoded(kCapture));
    size_t at = 0;
    for (const char* text :
         {"#1 ->  77", "#2 ->  MALFORMED (inner length 9 where 1 byte(s) follow it)\n    0000000509000000",
          "#3 ->  MALFORMED (frame of length 0)\n    00000000",
          "#4 ->  MALFORMED (no frame: a length of 2147483647 is above the limit",
          "#5 ->  MALFORMED (no frame: 0 byte(s) where a length of 9 was announced)\n    00000009",
          "#6 ->  MALFORMED (length field of 3 byte(s))\n    000001"}) {
        at = content.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " is not in\n" << content;
    }
    EXPECT_EQ(CountOf(content, " open\n"), broken.size()) << content;
    EXPECT_EQ(CountOf(content, " close\n"), broken.size());
}

TEST_F(WireCaptureTest, FailureIsToldOnceAndDisturbsNoWorker)
{
    ASSERT_EQ(mkfifo("/home/fifo", 0600), 0);
    Fd reader(open("/home/fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_NO_FATAL_FAILURE(Start("/home/fifo"));
    reader.Reset();
    const Fd worker = RawConnect(kServer);
    for (const uint32_t type : {0, 2, 2}) {
        ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(type))));
    }
    EXPECT_TRUE(daemon_->WaitForOut("heartbeats 2"));
    EXPECT_TRUE(daemon_->WaitForErr("/home/fifo: Broken pipe; nothing more is written to this capture\n"));
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    EXPECT_TRUE(daemon_->WaitForOut("heartbeats 3"));
    EXPECT_TRUE(Stop().ExitedWith(1)) << "the capture is not complete";
    EXPECT_EQ(CountOf(daemon_->err(), "Broken pipe"), 1U) << daemon_->err();
}

TEST_F(WireCaptureTest, ReaderThatPausesHoldsNobodyUp)
{
    ASSERT_EQ(mkfifo("/home/fifo", 0600), 0);
    const Fd reader(open("/home/fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_NO_FATAL_FAILURE(Start("/home/fifo"));
    const Fd worker = RawConnect(kServer);
    RawMessage request = FromWorker(3);
    request.lib_names = {{std::string(60000, 'x')}};
    for (int i = 0; i < 10; ++i) {  // far more than a pipe holds
        ASSERT_TRUE(WriteAll(worker, PpcFrame(request)));
    }
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    EXPECT_TRUE(daemon_->WaitForOut("heartbeats 1"));
    EXPECT_TRUE(Stop().ExitedWith(1));
    EXPECT_NE(daemon_->err().find("the capture is not read; the rest of it is not written"), std::string::npos);
}

TEST_F(WireCaptureTest, FileThatCannotBeWrittenEndsItBeforeItServes)
{
    for (const char* path : {"/nowhere/daemon.pcap", "/dev/full"}) {
        const Outcome outcome = RunTool(kGakppcd, {"--write", path, "--for", "0"});
        EXPECT_TRUE(outcome.status.ExitedWith(1)) << path;
        EXPECT_EQ(outcome.err.find(std::string("gakppcd: ") + path + ": No s"), 0U) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_EQ(access("/home/KrovaUser/qel_ppc/sock_server_19280", F_OK), -1);
}

}  // namespace
}  // namespace gaktest
