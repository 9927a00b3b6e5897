#include "gakppctl/watch/trace_recorder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace gaktest {
namespace {

using tools::Direction;
using tools::Record;
using tools::RecordKind;
using tools::TraceEvent;
using tools::WatchedEnd;
using Kind = tools::TraceEvent::Kind;

constexpr pid_t kSelf = 1000;

uint64_t Now()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

class TraceRecorderTest : public testing::Test {
protected:
    tools::TraceRecorder Recorder(bool isDaemon = true, bool sharesPids = true)
    {
        return tools::TraceRecorder({{kSelf, 5}, isDaemon, sharesPids, [this](int fd) { return EndOf(fd); }},
                                    [this](Record&& record) { records_.push_back(std::move(record)); });
    }

    std::optional<WatchedEnd> EndOf(int fd)
    {
        ++looks_;
        const auto found = ends_.find(fd);
        return found == ends_.end() ? std::nullopt : std::optional<WatchedEnd>(found->second);
    }

    static TraceEvent Event(Kind kind, int fd, uint64_t time, pid_t peer = 0)
    {
        TraceEvent event;
        event.kind = kind;
        event.fd = fd;
        event.time = time;
        event.peer = peer;
        event.status = 0x1011000;
        event.length = 6;
        event.payload = {2, 0, 0, 0, 8, 2};
        return event;
    }

    std::map<int, WatchedEnd> ends_;
    int looks_ = 0;
    std::vector<Record> records_;
};

TEST_F(TraceRecorderTest, DaemonReceivesFromItsWorkersAndSendsAsItself)
{
    ends_[7] = {true, {4711, 33}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kOpened, 7, 1, 4711));
    recorder.Push(Event(Kind::kReceived, 7, 2));
    recorder.Push(Event(Kind::kSent, 7, 3));
    recorder.Push(Event(Kind::kEnded, 7, 4, 4711));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 4U);
    EXPECT_EQ(records_[0].kind, RecordKind::kOpen);
    EXPECT_EQ(records_[1].kind, RecordKind::kFrame);
    EXPECT_EQ(records_[1].direction, Direction::kToDaemon);
    EXPECT_EQ(records_[1].bytes, (tools::Bytes{0, 0, 0, 6, 2, 0, 0, 0, 8, 2}));
    EXPECT_EQ(records_[1].wireLength, 10U);
    EXPECT_EQ(records_[2].direction, Direction::kToWorker);
    EXPECT_EQ(records_[2].peer.pid, kSelf);
    EXPECT_EQ(records_[2].peer.uid, 5U);
    EXPECT_EQ(records_[3].kind, RecordKind::kClose);
    for (const size_t i : {0, 1, 3}) {
        EXPECT_EQ(records_[i].peer.pid, 4711) << i;
        EXPECT_EQ(records_[i].peer.uid, 33U) << i;
        EXPECT_EQ(records_[i].connection, 1U) << i;
    }
}

TEST_F(TraceRecorderTest, WorkerReceivesFromItsDaemonAndOpensItself)
{
    ends_[7] = {false, {800, 0}};
    auto recorder = Recorder(false);
    recorder.Push(Event(Kind::kOpened, 7, 1, 800));
    recorder.Push(Event(Kind::kSent, 7, 2));
    recorder.Push(Event(Kind::kReceived, 7, 3));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 3U);
    EXPECT_EQ(records_[0].peer.pid, kSelf);
    EXPECT_EQ(records_[1].direction, Direction::kToDaemon);
    EXPECT_EQ(records_[1].peer.pid, kSelf);
    EXPECT_EQ(records_[2].direction, Direction::kToWorker);
    EXPECT_EQ(records_[2].peer.pid, 800);
}

TEST_F(TraceRecorderTest, DirectionIsThatOfTheConnectionNotOfTheProcess)
{
    ends_[7] = {false, {800, 0}};  // a daemon that is also a worker of another one
    auto recorder = Recorder(true);
    recorder.Push(Event(Kind::kSent, 7, 1));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].direction, Direction::kToDaemon);
}

TEST_F(TraceRecorderTest, OldConnectionIsNumberedWhenItIsFirstSeen)
{
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kReceived, 9, 1));
    recorder.Push(Event(Kind::kReceived, 7, 2));
    recorder.Push(Event(Kind::kEnded, 8, 3));
    recorder.Push(Event(Kind::kReceived, 9, 4));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 4U);
    EXPECT_EQ(records_[0].connection, 1U);
    EXPECT_EQ(records_[1].connection, 2U);
    EXPECT_EQ(records_[2].connection, 3U);
    EXPECT_EQ(records_[3].connection, 1U);
}

TEST_F(TraceRecorderTest, DescriptorThatIsUsedAgainIsAnotherConnection)
{
    ends_[7] = {true, {4711, 0}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kOpened, 7, 1, 4711));
    recorder.Push(Event(Kind::kEnded, 7, 2, 4711));
    recorder.Push(Event(Kind::kReceived, 7, 3));  // by a thread that was late
    ends_[7] = {true, {4712, 0}};
    recorder.Push(Event(Kind::kOpened, 7, 4, 4712));
    recorder.Push(Event(Kind::kReceived, 7, 5));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 5U);
    EXPECT_EQ(records_[2].connection, 1U);
    EXPECT_EQ(records_[3].connection, 2U);
    EXPECT_EQ(records_[4].connection, 2U);
    EXPECT_EQ(records_[4].peer.pid, 4712);
}

TEST_F(TraceRecorderTest, EndThatOvertakesAMessageLeavesItItsSender)
{
    ends_[7] = {true, {4711, 33}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kReceived, 7, 1));
    ends_.clear();
    recorder.Push(Event(Kind::kEnded, 7, 3, 4711));
    recorder.Push(Event(Kind::kReceived, 7, 2));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 3U);
    EXPECT_EQ(records_[1].kind, RecordKind::kFrame);
    EXPECT_EQ(records_[1].peer.pid, 4711);
    EXPECT_EQ(records_[1].peer.uid, 33U);
}

TEST_F(TraceRecorderTest, SessionWhoseBeginWasLostIsNotTheFormerOne)
{
    ends_[7] = {true, {4711, 0}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kOpened, 7, 1, 4711));
    recorder.Push(Event(Kind::kEnded, 7, 2, 4711));
    ends_[7] = {true, {4712, 0}};
    recorder.Push(Event(Kind::kReceived, 7, 3));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 3U);
    EXPECT_EQ(records_[2].peer.pid, 4712);
}

// Sessions on one descriptor, whose reports come late by up to a session's length.
TEST_F(TraceRecorderTest, NoOrderOfTheReportsMixesUpTheirSessions)
{
    constexpr uint64_t kLength = 10;
    for (unsigned seed = 0; seed < 500; ++seed) {
        std::mt19937 random(seed);
        std::multimap<uint64_t, TraceEvent> arrivals;
        for (uint64_t time = 0; time < 10 * kLength; ++time) {
            const Kind kind = time % kLength == 0   ? Kind::kOpened
                              : time % kLength == 9 ? Kind::kEnded
                                                    : Kind::kReceived;
            const pid_t peer = kind == Kind::kReceived ? 0 : static_cast<pid_t>(1 + time / kLength);
            arrivals.emplace(time + random() % kLength, Event(kind, 7, time, peer));
        }
        records_.clear();
        auto recorder = Recorder();
        for (auto& [now, event] : arrivals) {
            ends_[7] = {true, {static_cast<pid_t>(1 + now / kLength), 0}};
            recorder.Push(std::move(event));
        }
        recorder.PassOnAll();
        for (size_t i = 0; i < records_.size(); ++i) {
            EXPECT_EQ(records_[i].peer.pid, static_cast<pid_t>(1 + i / kLength)) << "seed " << seed << ", report " << i;
            EXPECT_EQ(records_[i].connection, 1 + i / kLength) << "seed " << seed << ", report " << i;
        }
    }
}

TEST_F(TraceRecorderTest, ReportsAreShownInTheOrderOfTheirTimes)
{
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kReceived, 7, 3));
    recorder.Push(Event(Kind::kSent, 7, 2));
    recorder.Push(Event(Kind::kOpened, 7, 1));
    recorder.PassOn();
    EXPECT_TRUE(records_.empty()) << "an earlier one may still come";
    EXPECT_LE(recorder.TimeoutMs(100000), 100);
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 3U);
    EXPECT_EQ(records_[0].kind, RecordKind::kOpen);
    EXPECT_EQ(records_[1].direction, Direction::kToWorker);
    EXPECT_EQ(recorder.TimeoutMs(100000), 100000);
}

TEST_F(TraceRecorderTest, ConnectionIsLookedAtOnceAndAtOnce)
{
    ends_[7] = {true, {4711, 33}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kReceived, 7, 1));
    ends_.clear();  // it has been closed meanwhile
    recorder.Push(Event(Kind::kReceived, 7, 2));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 2U);
    EXPECT_EQ(looks_, 1);
    EXPECT_EQ(records_[1].peer.pid, 4711);
}

TEST_F(TraceRecorderTest, ConnectionThatHasGoneIsKnownFromTheTracepointAlone)
{
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kOpened, 7, 1, getpid()));
    recorder.Push(Event(Kind::kReceived, 7, 2));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 2U);
    EXPECT_EQ(records_[0].peer.pid, getpid());
    EXPECT_EQ(records_[0].peer.uid, getuid());
    EXPECT_EQ(records_[1].peer.pid, getpid());
    EXPECT_EQ(records_[1].direction, Direction::kToDaemon);
}

TEST_F(TraceRecorderTest, DescriptorOfAnotherConnectionMeanwhileIsNotBelieved)
{
    ends_[7] = {true, {4712, 44}};
    auto recorder = Recorder();
    recorder.Push(Event(Kind::kOpened, 7, 1, getpid()));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].peer.pid, getpid());
}

TEST_F(TraceRecorderTest, NumbersOfAnotherPidNamespaceAreNotCompared)
{
    ends_[7] = {true, {4712, 44}};
    auto recorder = Recorder(true, false);
    recorder.Push(Event(Kind::kOpened, 7, 1, 3));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].peer.pid, 4712);
}

TEST_F(TraceRecorderTest, TimeIsThatOfTheClockOnTheWall)
{
    auto recorder = Recorder();
    const auto before = std::chrono::system_clock::now();
    recorder.Push(Event(Kind::kReceived, 7, Now()));
    recorder.PassOnAll();
    const auto after = std::chrono::system_clock::now();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_GE(records_[0].time, before - std::chrono::milliseconds(1));
    EXPECT_LE(records_[0].time, after + std::chrono::milliseconds(1));
}

TEST_F(TraceRecorderTest, MessageThatWasNotSentSaysWhy)
{
    auto recorder = Recorder();
    TraceEvent event = Event(Kind::kSent, 7, 1);
    event.status = 0x1093037;
    recorder.Push(std::move(event));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].sendStatus, 0x1093037U);
    EXPECT_NE(Show(records_[0], {}).find(" HEARTBEAT NOT SENT (kStatusPpcSendRecvFail (0x1093037)) {"),
              std::string::npos)
        << Show(records_[0], {});
}

// A message with a payload of `length` bytes of which the tracer read `payload`.
TraceEvent Cut(const tools::Bytes& payload, uint64_t length)
{
    TraceEvent event;
    event.kind = Kind::kReceived;
    event.fd = 7;
    event.time = 1;
    event.status = 0x1011000;
    event.length = length;
    event.payload = payload;
    event.message.set_type(qel::PPCMessage::NOTIFY_VEXOINFO);
    event.message.set_src_id(3);
    event.message.set_dest_id(19280);
    event.message.set_sub_proc_pid(4711);
    return event;
}

TEST_F(TraceRecorderTest, CutMessageShowsWhatTheTracepointKnows)
{
    auto recorder = Recorder();
    recorder.Push(Cut({}, 5000));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    EXPECT_EQ(records_[0].wireLength, 5004U);
    EXPECT_EQ(records_[0].bytes.size(), 4U);
    const std::string text = Show(records_[0], {});
    EXPECT_NE(text.find(" NOTIFY_VEXOINFO CUT (4 of 5004 bytes) {\"type\":\"NOTIFY_VEXOINFO\",\"src_id\":3,"
                        "\"dest_id\":19280,\"proc_type\":\"ZOLT\",\"sub_proc_pid\":4711,"),
              std::string::npos)
        << text;
}

TEST_F(TraceRecorderTest, CutMessageShowsWhatCanBeDecodedOfIt)
{
    qel::PPCMessage message;
    message.set_type(qel::PPCMessage::NOTIFY_VEXOINFO);
    message.set_host_pid(99);
    message.mutable_lib_names()->add_lib_name("libfirst.so");
    for (int i = 0; i < 300; ++i) {
        message.mutable_lib_names()->add_lib_name("libmore.so");
    }
    const tools::Bytes frame = tools::FrameOfMessage(message);
    auto recorder = Recorder();
    recorder.Push(Cut({frame.begin() + 4, frame.begin() + 204}, frame.size() - 4));
    recorder.PassOnAll();
    ASSERT_EQ(records_.size(), 1U);
    const std::string text = Show(records_[0], {true, false, false});
    EXPECT_NE(text.find("\"event\":\"message\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"host_pid\":99,\"lib_names\":{\"lib_name\":[\"libfirst.so\",\"libmore.so\","),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\"sub_proc_pid\":4711,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"cut\":true"), std::string::npos) << text;
}

}  // namespace
}  // namespace gaktest
