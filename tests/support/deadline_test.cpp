#include "deadline.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "process.h"

using namespace std::chrono_literals;

namespace gaktest {
namespace {

class TimeScaleTest : public testing::Test {
protected:
    static void Set(const char* scale) { setenv("GAKPPC_TEST_TIME_SCALE", scale, 1); }
};

TEST_F(TimeScaleTest, IsOneWithoutAWholeNumber)
{
    unsetenv("GAKPPC_TEST_TIME_SCALE");
    EXPECT_EQ(TimeScale(), 1);
    for (const char* const scale : {"", "0", "-2", "fast"}) {
        Set(scale);
        EXPECT_EQ(TimeScale(), 1) << scale;
    }
}

TEST_F(TimeScaleTest, StretchesDeadlines)
{
    Set("100");
    EXPECT_EQ(Stretched(5ms), 500ms);
    EXPECT_GT(Deadline(10s).RemainingMs(), 900000);
    EXPECT_EQ(Deadline(0s).RemainingMs(), 0);
}

TEST_F(TimeScaleTest, StretchesTheEndOfAProcess)
{
    Set("100");
    ChildProcess child([] {
        EndProcessAfter(10s);
        return alarm(0) > 900 ? 0 : 1;
    });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
}

TEST(DeadlineTest, PassesWhenItsTimeIsOver)
{
    EXPECT_FALSE(Deadline(10s).Passed());
    EXPECT_TRUE(Deadline(0s).Passed());
}

}  // namespace
}  // namespace gaktest
