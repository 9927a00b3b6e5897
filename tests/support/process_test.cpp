#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "raw_peer.h"
#include "sanitizer_options.h"

namespace gaktest {
namespace {

using namespace std::chrono_literals;

int WaitForASignal()
{
    for (;;) {
        pause();
    }
}

TEST(ChildProcessTest, ExitsWithTheResultOfItsFunction)
{
    ChildProcess child([] { return 42; });
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(42));
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(42)) << "a second wait gives the same answer";
}

TEST(ChildProcessTest, IsAnotherProcess)
{
    const pid_t parent = getpid();
    ChildProcess child([parent] { return getppid() == parent && getpid() != parent ? 0 : 1; });
    EXPECT_NE(child.pid(), parent);
    EXPECT_TRUE(child.WaitExit(10s).ExitedWith(0));
}

TEST(ChildProcessTest, WaitGivesUpAtItsDeadlineAndCanGoOn)
{
    ChildProcess child(&WaitForASignal);
    EXPECT_FALSE(child.WaitExit(10ms).ended);
    child.Kill(SIGKILL);
    EXPECT_TRUE(child.WaitExit(10s).KilledBy(SIGKILL));
}

TEST(ChildProcessTest, HangIsToldFromSlowWork)
{
    if (kUnderSanitizer) {
        GTEST_SKIP() << "a sanitizer's own thread wakes up all the time";
    }
    ChildProcess hangs(&WaitForASignal);
    EXPECT_FALSE(hangs.WaitExitUnlessItHangs(1000s).ended);
    ChildProcess slow([] {
        for (int i = 0; i < 30; ++i) {
            poll(nullptr, 0, 100);
        }
        return 0;
    });
    EXPECT_TRUE(slow.WaitExitUnlessItHangs(1000s).ExitedWith(0));
    ChildProcess busy([]() -> int {
        for (volatile bool always = true; always;) {
        }
        return 0;
    });
    EXPECT_FALSE(busy.WaitExitUnlessItHangs(2s).ended);
}

TEST(ChildProcessTest, DestructorKillsAndReaps)
{
    auto child = std::make_unique<ChildProcess>(&WaitForASignal);
    const pid_t pid = child->pid();
    EXPECT_EQ(kill(pid, 0), 0);
    child.reset();
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(ChildProcessTest, ExceptionAndFailedAssertionHaveCodesOfTheirOwn)
{
    ChildProcess thrower([]() -> int { throw std::runtime_error("expected by the test"); });
    EXPECT_TRUE(thrower.WaitExit(10s).ExitedWith(ChildProcess::kExceptionCode));
    ChildProcess failing([] {
        ADD_FAILURE() << "expected by the test";
        return 0;
    });
    EXPECT_TRUE(failing.WaitExit(10s).ExitedWith(ChildProcess::kFailedAssertionCode));
}

TEST(ChildProcessTest, LeavesNoDescriptorBehind)
{
    const size_t before = OpenDescriptors();
    {
        ChildProcess child([] { return 0; });
        child.WaitExit(10s);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(ChildProcessTest, DiesWithItsParent)
{
    // The grandchild holds the writing end; its death is the end of the stream.
    auto [reader, writer] = SocketPair();
    ChildProcess child([&writer = writer] {
        const ChildProcess grandchild(&WaitForASignal);
        WriteAll(writer, {1});
        return WaitForASignal();
    });
    writer.Reset();
    ASSERT_EQ(ReadExactly(reader, 1, 10s), Bytes{1});
    child.Kill(SIGKILL);
    EXPECT_TRUE(ExpectEof(reader, 10s));
}

TEST(ProcessStateTest, CountsDescriptors)
{
    const size_t before = OpenDescriptors();
    size_t open = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        open += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    EXPECT_EQ(before, open);
    {
        auto pair = SocketPair();
        EXPECT_EQ(OpenDescriptors(), before + 2);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(ProcessStateTest, CountsAndNamesThreads)
{
    const size_t before = ThreadCount();
    std::promise<void> named;
    std::promise<void> leave;
    std::thread thread([&] {
        pthread_setname_np(pthread_self(), "counted_thread");
        named.set_value();
        leave.get_future().wait();
    });
    named.get_future().wait();
    EXPECT_EQ(ThreadCount(), before + 1);
    const std::vector<std::string> names = ThreadNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "counted_thread"), 1);
    EXPECT_EQ(ThreadIds("counted_").size(), 1u);
    EXPECT_EQ(ThreadIds("counted_thread_").size(), 0u);
    leave.set_value();
    thread.join();
    EXPECT_TRUE(WaitUntil([before] { return ThreadCount() == before; }, 10s));
}

TEST(WaitUntilTest, AsksAgainUntilTrueOrTheDeadline)
{
    int asked = 0;
    EXPECT_TRUE(WaitUntil([&asked] { return ++asked == 3; }, 10s));
    EXPECT_EQ(asked, 3);
    EXPECT_FALSE(WaitUntil([] { return false; }, 5ms));
}

}  // namespace
}  // namespace gaktest
