#include "fault.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "hook_probe.h"

namespace gaktest {
namespace {

struct ProbeGetPid {
    static constexpr const char* kSymbol = "getpid";
    static constexpr const char* kLibrary = "libhook_probe_now.so";
    using Signature = pid_t();
};
struct ProbeOpen {
    static constexpr const char* kSymbol = "open";
    static constexpr const char* kLibrary = "libhook_probe_now.so";
    using Signature = int(const char*, int, long);
};
struct ProbeMalloc {
    static constexpr const char* kSymbol = "malloc";
    static constexpr const char* kLibrary = "libhook_probe_now.so";
    using Signature = void*(size_t);
};

TEST(CountingHookTest, CountsAndLetsThrough)
{
    CountingHook<ProbeGetPid> calls;
    EXPECT_EQ(calls.Count(), 0u);
    EXPECT_EQ(now_GetPid(), getpid());
    EXPECT_EQ(now_GetPid(), getpid());
    EXPECT_EQ(calls.Count(), 2u);
}

TEST(CountingHookTest, FailsTheCallOfThatNumberOnly)
{
    CountingHook<ProbeGetPid> calls;
    calls.FailCall(2, -1, EIO);
    EXPECT_EQ(now_GetPid(), getpid());
    errno = 0;
    EXPECT_EQ(now_GetPid(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(now_GetPid(), getpid());
}

TEST(CountingHookTest, FailsEveryCallFromANumberOn)
{
    CountingHook<ProbeMalloc> calls;
    calls.FailFrom(2, nullptr, ENOMEM);
    void* block = now_Allocate(16);
    EXPECT_NE(block, nullptr);
    free(block);
    EXPECT_EQ(now_Allocate(16), nullptr);
    EXPECT_EQ(now_Allocate(16), nullptr);
}

TEST(CountingHookTest, VariadicFunctionKeepsItsArguments)
{
    CountingHook<ProbeOpen> calls;
    int seenFlags = 0;
    calls.OnCall([&seenFlags](uint64_t, const char*, int flags, long) -> std::optional<int> {
        seenFlags = flags;
        return std::nullopt;
    });
    const int fd = now_OpenFile("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(seenFlags, O_RDONLY | O_CLOEXEC);
}

TEST(CountingHookTest, ResetCountsFromZeroAndDisturbsNothing)
{
    CountingHook<ProbeGetPid> calls;
    calls.FailFrom(1, -1, EIO);
    EXPECT_EQ(now_GetPid(), -1);
    calls.Reset();
    EXPECT_EQ(calls.Count(), 0u);
    EXPECT_EQ(now_GetPid(), getpid());
}

TEST(CountingHookTest, EndOfTheHookRestoresTheFunction)
{
    {
        CountingHook<ProbeGetPid> calls;
        calls.FailFrom(1, -1, EIO);
        EXPECT_EQ(now_GetPid(), -1);
    }
    EXPECT_EQ(now_GetPid(), getpid());
    CountingHook<ProbeGetPid> again;
    EXPECT_EQ(now_GetPid(), getpid());
    EXPECT_EQ(again.Count(), 1u);
}

TEST(CountingHookTest, ActionMayCallTheFunctionItself)
{
    CountingHook<ProbeGetPid> calls;
    calls.OnCall([](uint64_t) { return std::optional<pid_t>(CountingHook<ProbeGetPid>::Real() + 1); });
    EXPECT_EQ(now_GetPid(), getpid() + 1);
    EXPECT_EQ(calls.Count(), 1u);
}

TEST(CountingHookTest, CountsCallsOfManyThreads)
{
    CountingHook<ProbeGetPid> calls;
    calls.FailCalls(1, 100, -1, EIO);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&failed] {
            for (int call = 0; call < 100; ++call) {
                failed += now_GetPid() == -1 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(calls.Count(), 400u);
    EXPECT_EQ(failed.load(), 100);
}

TEST(CountingHookTest, CallMayBeInsideWhenTheHookEnds)
{
    std::promise<void> entered;
    std::promise<void> leave;
    auto calls = std::make_unique<CountingHook<ProbeGetPid>>();
    calls->OnCall([&](uint64_t) -> std::optional<pid_t> {
        entered.set_value();
        leave.get_future().wait();
        return std::nullopt;
    });
    pid_t seen = 0;
    std::thread caller([&seen] { seen = now_GetPid(); });
    entered.get_future().wait();
    calls.reset();
    leave.set_value();
    caller.join();
    EXPECT_EQ(seen, getpid());
}

TEST(CountingHookTest, EndOfTheHookReleasesTheAction)
{
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    {
        CountingHook<ProbeGetPid> calls;
        calls.OnCall([held](uint64_t) { return std::optional<pid_t>(*held); });
        held.reset();
        EXPECT_EQ(now_GetPid(), 0);
    }
    EXPECT_TRUE(watched.expired());
}

TEST(CountingHookTest, StdThreadStartFails)
{
    CountingHook<calls::StdThreadCreate> starts;
    starts.FailCall(1, EAGAIN, 0);
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    EXPECT_NO_THROW(std::thread([] {}).join());
    EXPECT_EQ(starts.Count(), 2u);
}

}  // namespace
}  // namespace gaktest
