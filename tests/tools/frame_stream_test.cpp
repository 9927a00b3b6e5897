#include "common/frame_stream.h"

#include <gtest/gtest.h>

#include <vector>

namespace tools {
namespace {

class FrameStreamTest : public testing::Test {
protected:
    void Pass(const Bytes& bytes) { stream_.Pass(bytes.data(), bytes.size()); }
    size_t NextSegment(const Bytes& bytes) const { return stream_.NextSegment(bytes.data(), bytes.size()); }

    std::vector<Piece> pieces_;
    FrameStream stream_{[this](Piece&& piece) { pieces_.push_back(std::move(piece)); }};
};

TEST_F(FrameStreamTest, IncompleteLengthFieldIsNoSegment)
{
    EXPECT_EQ(NextSegment({0}), 0u);
    EXPECT_EQ(NextSegment({0, 0}), 0u);
    EXPECT_EQ(NextSegment({0, 0, 0}), 0u);
}

TEST_F(FrameStreamTest, SegmentEndsWithItsFrame)
{
    EXPECT_EQ(NextSegment({0, 0, 0, 2, 1, 2, 0, 0}), 6u);
    EXPECT_EQ(NextSegment({0, 0, 0, 0, 0, 0}), 4u);
}

TEST_F(FrameStreamTest, BeginningOfAFrameIsASegment)
{
    EXPECT_EQ(NextSegment({0, 0, 0, 9, 1, 2}), 6u);
    Pass({0, 0, 0, 9, 1, 2});
    EXPECT_EQ(NextSegment({3, 4, 5, 6, 7, 8, 9, 0, 0}), 7u);
}

TEST_F(FrameStreamTest, RestOfALengthFieldBelongsToItsFrame)
{
    Pass({0, 0});
    EXPECT_EQ(NextSegment({0}), 0u);
    EXPECT_EQ(NextSegment({0, 1, 7, 0}), 3u);
}

TEST_F(FrameStreamTest, PortionsMakeNoDifference)
{
    for (const uint8_t byte : Bytes{0, 0, 0, 2, 1, 2, 0, 0, 0, 0}) {
        Pass({byte});
    }
    ASSERT_EQ(pieces_.size(), 2u);
    EXPECT_EQ(pieces_[0].bytes, (Bytes{0, 0, 0, 2, 1, 2}));
    EXPECT_EQ(pieces_[0].kind, PieceKind::kFrame);
    EXPECT_EQ(pieces_[1].bytes, (Bytes{0, 0, 0, 0}));
}

TEST_F(FrameStreamTest, NothingIsToldApartAfterALengthAboveTheLimit)
{
    EXPECT_EQ(NextSegment({0x40, 0, 0, 1, 0, 0, 0, 0}), 8u);
    Pass({0x40, 0, 0, 1, 0, 0, 0, 0});
    Pass({0, 0, 0, 0});
    ASSERT_EQ(pieces_.size(), 2u);
    EXPECT_EQ(pieces_[0].kind, PieceKind::kFragment);
    EXPECT_EQ(pieces_[0].wireLength, 8u);
    EXPECT_EQ(pieces_[1].kind, PieceKind::kFragment);
}

TEST_F(FrameStreamTest, LongestPayloadIsNoFragment)
{
    Pass({0x40, 0, 0, 0});
    EXPECT_TRUE(pieces_.empty());
    EXPECT_EQ(NextSegment(Bytes(100)), 100u);
}

TEST_F(FrameStreamTest, EndLeavesAFragment)
{
    Pass({0, 0, 0, 2, 1});
    stream_.End();
    ASSERT_EQ(pieces_.size(), 1u);
    EXPECT_EQ(pieces_[0].kind, PieceKind::kFragment);
    EXPECT_EQ(pieces_[0].bytes, (Bytes{0, 0, 0, 2, 1}));
}

TEST_F(FrameStreamTest, EndBetweenFramesLeavesNothing)
{
    Pass({0, 0, 0, 1, 1});
    stream_.End();
    EXPECT_EQ(pieces_.size(), 1u);
}

TEST_F(FrameStreamTest, LongFrameIsKeptInPart)
{
    const size_t length = kMaxKept + 10;
    Pass(FrameOf(Bytes(length)));
    ASSERT_EQ(pieces_.size(), 1u);
    EXPECT_EQ(pieces_[0].kind, PieceKind::kFrame);
    EXPECT_EQ(pieces_[0].wireLength, length + kFrameHeaderSize);
    EXPECT_EQ(pieces_[0].bytes.size(), kMaxKept);
    EXPECT_TRUE(pieces_[0].IsCut());
}

}  // namespace
}  // namespace tools
