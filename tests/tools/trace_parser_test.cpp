#include "gakppctl/watch/trace_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gakppctl/watch/trace_program.h"

namespace gaktest {
namespace {

using tools::Bytes;
using tools::TraceEvent;
using Kind = tools::TraceEvent::Kind;

std::string Printf(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        escaped += c == '\\' ? "\\\\" : std::string(1, c);
    }
    return R"({"type": "printf", "data": ")" + escaped + "\\n\"}\n";
}

std::string Escaped(const Bytes& bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += std::string("\\x") + kDigits[byte / 16] + kDigits[byte % 16];
    }
    return text;
}

Bytes Payload(size_t size)
{
    Bytes bytes;
    for (size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<uint8_t>(i * 7));
    }
    return bytes;
}

Bytes Part(const Bytes& bytes, size_t offset)
{
    const size_t end = std::min(bytes.size(), offset + tools::kTracePiece);
    return {bytes.begin() + static_cast<ptrdiff_t>(offset), bytes.begin() + static_cast<ptrdiff_t>(end)};
}

// The lines of a message of `length` bytes, of which the tracer read `payload`.
std::vector<std::string> Lines(const std::string& thread, size_t length, const Bytes& payload)
{
    std::vector<std::string> lines{
        Printf("S " + thread + " 1f4 7 16846848 " + std::to_string(length) + " 19280 1 4711 5 2")};
    for (size_t offset = 0; offset < payload.size(); offset += tools::kTracePiece) {
        lines.push_back(
            Printf("P " + thread + " 1f4 " + std::to_string(offset) + " " + Escaped(Part(payload, offset))));
    }
    return lines;
}

class TraceParserTest : public testing::Test {
protected:
    void Feed(const std::string& text) { parser_.Feed(text.data(), text.size()); }

    std::vector<TraceEvent> events_;
    tools::TraceParser parser_{[this](TraceEvent&& event) { events_.push_back(std::move(event)); }};
};

TEST_F(TraceParserTest, ConnectionsAreRead)
{
    Feed(Printf("A") + Printf("O 2314b5e3e4bc 7 4711") + Printf("E 2314b5e3e4bd -1 0"));
    ASSERT_EQ(events_.size(), 3U);
    EXPECT_EQ(events_[0].kind, Kind::kAttached);
    EXPECT_EQ(events_[1].kind, Kind::kOpened);
    EXPECT_EQ(events_[1].time, 0x2314b5e3e4bcU);
    EXPECT_EQ(events_[1].fd, 7);
    EXPECT_EQ(events_[1].peer, 4711);
    EXPECT_EQ(events_[2].kind, Kind::kEnded);
    EXPECT_EQ(events_[2].fd, -1);
    EXPECT_EQ(parser_.Rejected(), 0U);
}

TEST_F(TraceParserTest, MessageHasAllItsArguments)
{
    Feed(Printf("R 99 1f4 12 17379386 6 1 19280 4294967295 -3 12") + Printf(R"(P 99 1f4 0 \x02\x00\x00\x00\x08\x02)"));
    ASSERT_EQ(events_.size(), 1U);
    const TraceEvent& event = events_[0];
    EXPECT_EQ(event.kind, Kind::kReceived);
    EXPECT_EQ(event.time, 500U);
    EXPECT_EQ(event.fd, 12);
    EXPECT_EQ(event.status, 17379386U);
    EXPECT_EQ(event.length, 6U);
    EXPECT_EQ(event.message.src_id(), 1U);
    EXPECT_EQ(event.message.dest_id(), 19280U);
    EXPECT_EQ(event.message.sub_proc_pid(), 4294967295U);
    EXPECT_EQ(static_cast<int>(event.message.type()), -3);
    EXPECT_EQ(static_cast<int>(event.message.proc_type()), 12);
    EXPECT_EQ(event.payload, (Bytes{2, 0, 0, 0, 8, 2}));
}

TEST_F(TraceParserTest, LinesMayComeInAnyPortions)
{
    for (const char c : Printf("O 1 7 4711") + Printf("S 1 2 7 0 1 0 0 0 0 0") + Printf("P 1 2 0 \\xff")) {
        Feed(std::string(1, c));
    }
    ASSERT_EQ(events_.size(), 2U);
    EXPECT_EQ(events_[1].payload, Bytes{0xFF});
}

TEST_F(TraceParserTest, PiecesOfTwoThreadsAreKeptApart)
{
    const Bytes payload = Payload(2 * tools::kTracePiece + 1);
    const auto first = Lines("1", payload.size(), payload);
    const auto second = Lines("2", payload.size(), payload);
    ASSERT_EQ(first.size(), 4U);
    for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_TRUE(events_.empty()) << i;
        Feed(first[i] + second[i]);
    }
    ASSERT_EQ(events_.size(), 2U);
    EXPECT_EQ(events_[0].payload, payload);
    EXPECT_EQ(events_[1].payload, payload);
    EXPECT_EQ(parser_.Rejected(), 0U);
}

TEST_F(TraceParserTest, MessageBeyondTheLimitIsGivenOutWithItsLength)
{
    const Bytes payload = Payload(tools::kTraceLimit);
    for (const std::string& line : Lines("1", 1000000, payload)) {
        EXPECT_TRUE(events_.empty());
        Feed(line);
    }
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_EQ(events_[0].length, 1000000U);
    EXPECT_EQ(events_[0].payload, payload);
}

TEST_F(TraceParserTest, NextMessageOfTheThreadEndsOneWhosePiecesWereLost)
{
    const Bytes payload = Payload(500);
    const auto lines = Lines("1", payload.size(), payload);
    Feed(lines[0] + lines[1] + Printf("S 1 2 7 0 1 0 0 0 0 0") + Printf("P 1 2 0 \\xff"));
    ASSERT_EQ(events_.size(), 2U);
    EXPECT_EQ(events_[0].payload, Part(payload, 0));
    EXPECT_EQ(events_[0].length, 500U);
    Feed(lines[2]);
    EXPECT_EQ(events_.size(), 2U) << "nobody waits for it";
}

TEST_F(TraceParserTest, PieceThatDoesNotFollowIsPassedOver)
{
    const Bytes payload = Payload(900);
    const auto lines = Lines("1", payload.size(), payload);
    Feed(lines[0] + lines[1] + lines[3] + Printf("P 1 1f5 200 \\x00") + Printf("P 2 1f4 200 \\x00") + lines[2]);
    EXPECT_EQ(parser_.Rejected(), 0U) << "the lost ones are reported by themselves";
    parser_.Finish();
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_EQ(events_[0].payload.size(), 2 * tools::kTracePiece);
}

TEST_F(TraceParserTest, LostReportsAreCountedAndEndWhatIsUnfinished)
{
    const Bytes payload = Payload(500);
    Feed(Lines("1", payload.size(), payload)[0] + R"({"type": "lost_events", "data": {"events": 42}})" + "\n");
    ASSERT_EQ(events_.size(), 2U);
    EXPECT_EQ(events_[0].kind, Kind::kSent);
    EXPECT_EQ(events_[1].kind, Kind::kLost);
    EXPECT_EQ(events_[1].lost, 42U);
}

TEST_F(TraceParserTest, TotalTellsWhatIsMissing)
{
    Feed(Printf("O 1 7 4711") + Printf("S 1 2 7 0 0 0 0 0 0 0") + R"({"type": "map", "data": {"@reports": 12}})" +
         "\n");
    ASSERT_EQ(events_.size(), 3U);
    EXPECT_EQ(events_[2].kind, Kind::kTotal);
    EXPECT_EQ(events_[2].lost, 10U);
}

TEST_F(TraceParserTest, WhatBpftraceSaysOfItselfIsPassedOver)
{
    Feed(
        "{\"type\": \"attached_probes\", \"data\": {\"probes\": 7}}\n\n{\"type\": \"map\", \"data\": {\"@began\": "
        "{}}}\n");
    EXPECT_TRUE(events_.empty());
    EXPECT_EQ(parser_.Rejected(), 0U);
}

TEST_F(TraceParserTest, EndlessLineIsPassedOver)
{
    for (int i = 0; i < 300; ++i) {
        Feed(std::string(1000, 'x'));
    }
    Feed("\n" + Printf("O 1 7 4711"));
    EXPECT_EQ(parser_.Rejected(), 1U);
    EXPECT_EQ(events_.size(), 1U);
}

TEST_F(TraceParserTest, ThreadsThatNeverFinishTakeNoMemoryWithoutEnd)
{
    const Bytes payload = Payload(500);
    for (int thread = 0; thread < 5000; ++thread) {
        Feed(Lines(std::to_string(thread), payload.size(), payload)[0]);
    }
    EXPECT_GE(events_.size(), 3000U);
    parser_.Finish();
    EXPECT_EQ(events_.size(), 5000U);
}

class HostileLine : public TraceParserTest, public testing::WithParamInterface<const char*> {};

TEST_P(HostileLine, IsRejectedAndChangesNothing)
{
    Feed(std::string(GetParam()) + "\n" + Printf("O 1 7 4711"));
    EXPECT_EQ(parser_.Rejected(), 1U);
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_EQ(events_[0].kind, Kind::kOpened);
}

TEST_F(TraceParserTest, LossWithoutANumberIsALoss)
{
    Feed("{\"type\": \"lost_events\", \"data\": {\"events\": -5}}\n");
    Feed("{\"type\": \"lost_events\", \"data\": {\"events\": \"5\"}}\n");
    EXPECT_EQ(parser_.Rejected(), 2U);
    ASSERT_EQ(events_.size(), 2U);
    EXPECT_EQ(events_[0].kind, Kind::kLost);
}

// While a message of this thread waits for its four bytes.
TEST_F(TraceParserTest, PieceThatIsLongerThanItsMessageIsPassedOver)
{
    Feed(Printf("S 1 2 7 0 4 0 0 0 0 0") + Printf(R"(P 1 2 0 \x00\x00\x00\x00\x00)"));
    EXPECT_TRUE(events_.empty());
    parser_.Finish();
    ASSERT_EQ(events_.size(), 1U);
    EXPECT_TRUE(events_[0].payload.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, HostileLine,
    testing::Values(
        "Attaching 7 probes...", "{", "[]", "null", "7", "\"printf\"", "{}", R"({"type": 7, "data": "A\n"})",
        R"({"type": "printf"})", R"({"type": "printf", "data": {}})", R"({"type": "printf", "data": ""})",
        R"({"type": "printf", "data": "\n"})", R"({"type": "printf", "data": "A"})",
        R"({"type": "printf", "data": "X 1 2 3\n"})", R"({"type": "printf", "data": "O\n"})",
        R"({"type": "printf", "data": "O \n"})", R"({"type": "printf", "data": "O 1 7\n"})",
        R"({"type": "printf", "data": "O 1 7 4711 5\n"})", R"({"type": "printf", "data": "O  1 7 4711\n"})",
        R"({"type": "printf", "data": "O x 7 4711\n"})", R"({"type": "printf", "data": "O 1 7x 4711\n"})",
        R"({"type": "printf", "data": "O 1 99999999999 4711\n"})",
        R"({"type": "printf", "data": "O 11111111111111111 7 4711\n"})",
        R"({"type": "printf", "data": "S 1 2 7 0 -1 0 0 0 0 0 \n"})",
        R"({"type": "printf", "data": "S 1 2 7 0 1 0 0 0 0 0 \\x00\n"})",
        R"({"type": "printf", "data": "P 1 2 0 \\x0\n"})", R"({"type": "printf", "data": "P 1 2 0 \\x0g\n"})",
        R"({"type": "printf", "data": "P 1 2 0 abcd\n"})", R"({"type": "printf", "data": "P 1 2 0 \\x00 \\x00\n"})",
        R"({"type": "printf", "data": "P 1 2 0 \\x00 \\x00 \n"})", R"({"type": "lost_events", "data": 5})",
        R"({"type": "map", "data": "@reports"})", "{\"type\": \"printf\", \"data\": \"\xff\\n\"}",
        "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["));

}  // namespace
}  // namespace gaktest
