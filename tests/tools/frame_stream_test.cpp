#include "common/frame_stream.h"

#include <gtest/gtest.h>

#include <vector>

namespace gaktest {
namespace {

using tools::Bytes;
using tools::FrameOf;
using tools::FrameStream;
using tools::kFrameHeaderSize;
using tools::kMaxStored;
using tools::StreamItem;
using tools::StreamItemKind;

class FrameStreamTest : public testing::Test {
protected:
    void Feed(const Bytes& bytes) { stream_.Feed(bytes.data(), bytes.size()); }
    size_t NextSegment(const Bytes& bytes) const { return stream_.NextSegment(bytes.data(), bytes.size()); }

    std::vector<StreamItem> items_;
    FrameStream stream_{[this](StreamItem&& item) { items_.push_back(std::move(item)); }};
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
    Feed({0, 0, 0, 9, 1, 2});
    EXPECT_EQ(NextSegment({3, 4, 5, 6, 7, 8, 9, 0, 0}), 7u);
}

TEST_F(FrameStreamTest, RestOfALengthFieldBelongsToItsFrame)
{
    Feed({0, 0});
    EXPECT_EQ(NextSegment({0}), 0u);
    EXPECT_EQ(NextSegment({0, 1, 7, 0}), 3u);
}

TEST_F(FrameStreamTest, PortionsMakeNoDifference)
{
    for (const uint8_t byte : Bytes{0, 0, 0, 2, 1, 2, 0, 0, 0, 0}) {
        Feed({byte});
    }
    ASSERT_EQ(items_.size(), 2u);
    EXPECT_EQ(items_[0].bytes, (Bytes{0, 0, 0, 2, 1, 2}));
    EXPECT_EQ(items_[0].kind, StreamItemKind::kFrame);
    EXPECT_EQ(items_[1].bytes, (Bytes{0, 0, 0, 0}));
}

TEST_F(FrameStreamTest, NothingIsToldApartAfterALengthAboveTheLimit)
{
    EXPECT_EQ(NextSegment({0x40, 0, 0, 1, 0, 0, 0, 0}), 8u);
    Feed({0x40, 0, 0, 1, 0, 0, 0, 0});
    Feed({0, 0, 0, 0});
    ASSERT_EQ(items_.size(), 2u);
    EXPECT_EQ(items_[0].kind, StreamItemKind::kFragment);
    EXPECT_EQ(items_[0].wireLength, 8u);
    EXPECT_EQ(items_[1].kind, StreamItemKind::kFragment);
}

TEST_F(FrameStreamTest, LongestPayloadIsNoFragment)
{
    Feed({0x40, 0, 0, 0});
    EXPECT_TRUE(items_.empty());
    EXPECT_EQ(NextSegment(Bytes(100)), 100u);
}

TEST_F(FrameStreamTest, EndLeavesAFragment)
{
    Feed({0, 0, 0, 2, 1});
    stream_.Finish();
    ASSERT_EQ(items_.size(), 1u);
    EXPECT_EQ(items_[0].kind, StreamItemKind::kFragment);
    EXPECT_EQ(items_[0].bytes, (Bytes{0, 0, 0, 2, 1}));
}

TEST_F(FrameStreamTest, EndBetweenFramesLeavesNothing)
{
    Feed({0, 0, 0, 1, 1});
    stream_.Finish();
    EXPECT_EQ(items_.size(), 1u);
}

TEST_F(FrameStreamTest, LongFrameIsKeptInPart)
{
    const size_t length = kMaxStored + 10;
    Feed(FrameOf(Bytes(length)));
    ASSERT_EQ(items_.size(), 1u);
    EXPECT_EQ(items_[0].kind, StreamItemKind::kFrame);
    EXPECT_EQ(items_[0].wireLength, length + kFrameHeaderSize);
    EXPECT_EQ(items_[0].bytes.size(), kMaxStored);
    EXPECT_TRUE(items_[0].IsTruncated());
}

}  // namespace
}  // namespace gaktest
