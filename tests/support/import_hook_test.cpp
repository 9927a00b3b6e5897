#include "import_hook.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "hook_probe.h"

namespace gaktest {
namespace {

constexpr pid_t kFakePid = -77;
constexpr char kNow[] = "libhook_probe_now.so";
constexpr char kLazy[] = "libhook_probe_lazy.so";

pid_t FakeGetPid()
{
    return kFakePid;
}

pid_t OtherFakeGetPid()
{
    return kFakePid - 1;
}

int FakeOwn(int value)
{
    return value * 100;
}

void* AsPointer(pid_t (*function)())
{
    return reinterpret_cast<void*>(function);
}

TEST(ImportHookTest, ReplacesALibcFunctionUntilItsScopeEnds)
{
    {
        ImportHook hook("getpid", AsPointer(&FakeGetPid), kNow);
        EXPECT_EQ(now_GetPid(), kFakePid);
    }
    EXPECT_EQ(now_GetPid(), getpid());
}

TEST(ImportHookTest, LeavesTheProgramAndOtherLibrariesAlone)
{
    ImportHook hook("getpid", AsPointer(&FakeGetPid), kNow);
    EXPECT_NE(getpid(), kFakePid);
    EXPECT_EQ(other_GetPid(), getpid());
}

TEST(ImportHookTest, ReplacesASlotThatIsNotYetBound)
{
    {
        ImportHook hook("getpid", AsPointer(&FakeGetPid), kLazy);
        EXPECT_EQ(lazy_GetPid(), kFakePid);
        EXPECT_EQ(hook.original<pid_t (*)()>()(), getpid());
        EXPECT_EQ(lazy_GetPid(), kFakePid) << "a call of the original must not bind the slot again";
    }
    EXPECT_EQ(lazy_GetPid(), getpid());
}

TEST(ImportHookTest, ReplacesASlotThatIsBoundAlready)
{
    EXPECT_EQ(lazy_GetPid(), getpid());
    ImportHook hook("getpid", AsPointer(&FakeGetPid), kLazy);
    EXPECT_EQ(lazy_GetPid(), kFakePid);
    EXPECT_EQ(hook.original<pid_t (*)()>()(), getpid());
}

TEST(ImportHookTest, ReplacesTheLibrarysOwnExportedFunction)
{
    ImportHook hook("now_Own", reinterpret_cast<void*>(&FakeOwn), kNow);
    EXPECT_EQ(now_CallsOwn(3), 300);
    EXPECT_EQ(hook.original<int (*)(int)>()(3), 4);
}

TEST(ImportHookTest, ReplacesALazilyBoundLibrarysOwnExportedFunction)
{
    ImportHook hook("lazy_Own", reinterpret_cast<void*>(&FakeOwn), kLazy);
    EXPECT_EQ(lazy_CallsOwn(3), 300);
    EXPECT_EQ(hook.original<int (*)(int)>()(3), 4);
}

TEST(ImportHookTest, ReplacesPointersInDataAsWell)
{
    {
        ImportHook hook("now_Own", reinterpret_cast<void*>(&FakeOwn), kNow);
        EXPECT_EQ(now_CallsThroughPointer(3), 300);
    }
    EXPECT_EQ(now_CallsThroughPointer(3), 4);
}

TEST(ImportHookTest, ReplacesFunctionsThatAreCalledByAddress)
{
    {
        ImportHook hook("getppid", AsPointer(&FakeGetPid), kNow);
        EXPECT_EQ(now_CallsByAddress(), kFakePid);
    }
    EXPECT_EQ(now_CallsByAddress(), getppid());
}

TEST(ImportHookTest, OriginalIsWhatWasCalledBefore)
{
    ImportHook hook("getpid", AsPointer(&FakeGetPid), kNow);
    EXPECT_EQ(hook.original<pid_t (*)()>()(), getpid());
}

TEST(ImportHookTest, HooksOfOneSymbolNest)
{
    ImportHook outer("getpid", AsPointer(&FakeGetPid), kLazy);
    {
        ImportHook inner("getpid", AsPointer(&OtherFakeGetPid), kLazy);
        EXPECT_EQ(lazy_GetPid(), kFakePid - 1);
        EXPECT_EQ(inner.original<pid_t (*)()>()(), kFakePid);
    }
    EXPECT_EQ(lazy_GetPid(), kFakePid);
}

TEST(ImportHookTest, IsSeenByOtherThreads)
{
    ImportHook hook("getpid", AsPointer(&FakeGetPid), kNow);
    pid_t seen = 0;
    std::thread([&seen] { seen = now_GetPid(); }).join();
    EXPECT_EQ(seen, kFakePid);
}

TEST(ImportHookTest, UnknownSymbolThrows)
{
    EXPECT_THROW(ImportHook("no_such_function", AsPointer(&FakeGetPid), kNow), std::runtime_error);
    // Defined in the C library and used by the program, but not imported by the probe.
    EXPECT_THROW(ImportHook("getuid", AsPointer(&FakeGetPid), kNow), std::runtime_error);
}

TEST(ImportHookTest, UnknownLibraryThrows)
{
    EXPECT_THROW(ImportHook("getpid", AsPointer(&FakeGetPid), "libno_such_library.so"), std::runtime_error);
    // A prefix of a library's name is not its name.
    EXPECT_THROW(ImportHook("getpid", AsPointer(&FakeGetPid), "libhook_probe"), std::runtime_error);
}

}  // namespace
}  // namespace gaktest
