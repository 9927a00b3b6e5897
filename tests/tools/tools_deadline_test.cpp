#include <gtest/gtest.h>

#include <chrono>
#include <climits>

#include "common/deadline.h"

using namespace std::chrono_literals;

namespace gaktest {
namespace {

TEST(ToolsDeadlineTest, RemainsAsLongAsPollCanWaitAtMost)
{
    EXPECT_EQ(tools::Deadline(100 * 24h).RemainingMs(), INT_MAX);
    EXPECT_EQ(tools::Deadline(-1s).RemainingMs(), 0);
}

TEST(ToolsDeadlineTest, EarlierOneIsLessBeyondWhatPollCanWaitToo)
{
    for (const auto base : {0h, 100 * 24h}) {
        const tools::Deadline first(base + 1h);
        const tools::Deadline second(base + 2h);
        EXPECT_TRUE(first < second);
        EXPECT_FALSE(second < first);
        EXPECT_FALSE(first < first);
    }
}

}  // namespace
}  // namespace gaktest
