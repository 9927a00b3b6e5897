// What crosses a tap, and what that costs.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <thread>

#include "tap_fixture.h"

namespace gaktest {
namespace {

using TapFlow = TapTest;

struct Odd {
    Bytes bytes;
    const char* shown;
};
void PrintTo(const Odd& odd, std::ostream* out)
{
    *out << Hex(odd.bytes);
}
class TapMalformed : public TapTest, public testing::WithParamInterface<Odd> {};

TEST_P(TapMalformed, IsPassedOnAsItIsAndShown)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    ASSERT_TRUE(WriteAll(worker_, GetParam().bytes));
    EXPECT_EQ(Hex(ReadExactly(daemon_, GetParam().bytes.size(), kLimit)), Hex(GetParam().bytes));
    Disconnect();
    EXPECT_TRUE(tap_->WaitForOut(GetParam().shown));
}

INSTANTIATE_TEST_SUITE_P(Kinds, TapMalformed,
                         testing::Values(Odd{{0}, "length field of 1 byte"}, Odd{{0, 0}, "length field of 2 byte"},
                                         Odd{{0, 0, 0}, "length field of 3 byte"}, Odd{{0, 0, 0, 0}, "length 0"},
                                         Odd{{0x40, 0, 0, 1, 2, 3}, "above the limit"},
                                         Odd{{0xDE, 0xAD, 0xBE, 0xEF}, "above the limit"},
                                         Odd{{0, 0, 0, 9, 1}, "1 byte(s) where a length of 9"}));

TEST_F(TapFlow, FrameInPiecesArrivesInPieces)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    const Bytes frame = PpcFrame(FromWorker(2));
    for (const uint8_t byte : frame) {
        ASSERT_TRUE(WriteAll(worker_, {byte}));
        ASSERT_EQ(ReadExactly(daemon_, 1, kLimit), Bytes{byte});
    }
    EXPECT_TRUE(tap_->WaitForOut("\"type\":\"HEARTBEAT\""));
}

TEST_F(TapFlow, LargeFramesPassWhileTheirReceiverIsSlow)
{
    ASSERT_NO_FATAL_FAILURE(Start({"--for", "60"}));
    ASSERT_NO_FATAL_FAILURE(Connect());
    Bytes payload(size_t{20} * 1024 * 1024);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 31 + i / 4096);
    }
    const Bytes frame = FrameBytes(payload);
    std::thread sender([&] {
        WriteAll(worker_, frame);
        WriteAll(worker_, PpcFrame(FromWorker(2)));
    });
    EXPECT_TRUE(ReadFrame(daemon_, kLimit) == payload);
    EXPECT_EQ(ReadPpcFrame(daemon_, kLimit), FromWorker(2));
    sender.join();
    EXPECT_TRUE(tap_->WaitForOut("only 16777216 of 20971524 bytes were kept"));
}

TEST_F(TapFlow, PeerSeesTheOthersEndInBothDirections)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    daemon_.Reset();
    EXPECT_TRUE(ExpectEof(worker_, kLimit));
    ASSERT_NO_FATAL_FAILURE(Connect());
    Disconnect();
}

TEST_F(TapFlow, NothingCanBeSentToAWorkerThatHasLeft)
{
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Connect());
    worker_.Reset();
    ASSERT_TRUE(ExpectEof(daemon_, kLimit));
    EXPECT_FALSE(WriteAll(daemon_, PpcFrame(FromWorker(5)))) << "without the tap the daemon would learn it at once";
}

// Counts frames of all connections until it is told that no more come.
class CountingDaemon {
public:
    explicit CountingDaemon(const Fd& listener) : acceptor_([this, &listener] { Accept(listener); }) {}
    ~CountingDaemon() { Stop(); }

    size_t Messages() const { return messages_; }
    bool InOrder() const { return inOrder_; }
    void Stop()
    {
        stop_ = true;
        if (acceptor_.joinable()) {
            acceptor_.join();
        }
    }

private:
    void Accept(const Fd& listener)
    {
        while (!stop_) {
            Fd worker = RawAccept(listener, std::chrono::milliseconds(20));
            if (worker.valid()) {
                Serve(worker);
            }
        }
    }

    // Answers each message with itself; their pids count up.
    void Serve(const Fd& worker)
    {
        uint32_t next = 1;
        while (const auto message = ReadPpcFrame(worker, kLimit)) {
            ++messages_;
            inOrder_ = inOrder_ && message->sub_proc_pid == next++;
            WriteAll(worker, PpcFrame(*message));
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<size_t> messages_{0};
    std::atomic<bool> inOrder_{true};
    std::thread acceptor_;
};

// Sends `count` messages on a connection of its own and takes the answer of each.
testing::AssertionResult RoundTrips(uint32_t count, std::vector<double>* micros = nullptr)
{
    const Fd worker = RawConnect(kServer);
    if (!worker.valid()) {
        return testing::AssertionFailure() << "no socket to connect to: " << strerror(errno);
    }
    for (uint32_t i = 1; i <= count; ++i) {
        const Bytes frame = PpcFrame(FromWorker(2, 0, i));
        const auto begin = std::chrono::steady_clock::now();
        if (!WriteAll(worker, frame) || ReadExactly(worker, frame.size(), kLimit) != frame) {
            return testing::AssertionFailure() << "message " << i << " or its answer is lost";
        }
        if (micros != nullptr) {
            micros->push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
        }
    }
    return testing::AssertionSuccess();
}

TEST_F(TapFlow, NoMessageIsLostWhileItComesAndGoes)
{
    constexpr uint32_t kConnections = 500;
    constexpr uint32_t kEach = 20;
    CountingDaemon daemon(listener_);
    std::atomic<bool> done{false};
    std::atomic<int> taps{0};
    std::thread tapping([&] {
        while (!done) {
            Tool tap(kGakppctl, {"tap", "--for", "0.05"});
            EXPECT_TRUE(tap.Finish().ExitedWith(0)) << tap.err();
            ++taps;
        }
    });
    for (uint32_t i = 0; i < kConnections; ++i) {
        const auto result = RoundTrips(kEach);
        EXPECT_TRUE(result) << "connection " << i;
        if (!result) {
            break;
        }
    }
    while (taps < 2) {
        EXPECT_TRUE(RoundTrips(1));
    }
    done = true;
    tapping.join();
    daemon.Stop();
    EXPECT_GE(daemon.Messages(), size_t{kConnections} * kEach);
    EXPECT_TRUE(daemon.InOrder());
    EXPECT_GE(taps, 2);
    EXPECT_EQ(access(kSavedSock.c_str(), F_OK), -1);
    std::cout << daemon.Messages() << " messages, " << taps << " taps\n";
}

double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// What the tap costs is printed, not judged: other programs on the machine decide it as well.
TEST_F(TapFlow, RoundTripIsCompared)
{
    constexpr uint32_t kCount = 5000;
    CountingDaemon daemon(listener_);
    std::vector<double> without;
    std::vector<double> with;
    ASSERT_TRUE(RoundTrips(kCount, &without));
    ASSERT_NO_FATAL_FAILURE(Start({"--write", "/home/trace.pcap"}));
    std::thread reader([this] { tap_->WaitForOut("#1 -- pid " + std::to_string(getpid()) + " uid 0 close"); });
    const auto result = RoundTrips(kCount, &with);
    reader.join();
    ASSERT_TRUE(result);
    EXPECT_EQ(with.size(), without.size());
    std::cout << "round trip, median: " << Median(without) << " us without the tap, " << Median(with) << " us with it, "
              << Median(with) - Median(without) << " us added\n";
    EXPECT_EQ(CountOf(tap_->out(), "\"type\":\"HEARTBEAT\""), 2 * kCount);
}

}  // namespace
}  // namespace gaktest
