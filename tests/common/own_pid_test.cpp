// The process id in what a worker sends. The library remembers it in memory that is wiped in new processes, for which
// it asks when it is loaded; this program can have that refused.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "fault.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::CountingHook;
using gaktest::Fd;
using gaktest::RawAccept;
using gaktest::RawMessage;

constexpr int kServerId = 19280;

bool adviceIsRefused = false;
void* memory = nullptr;  // that the library asked advice for
bool memoryIsReturned = false;

struct Getpid : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "getpid";
    using Signature = pid_t();
};

}  // namespace

extern "C" int madvise(void* address, size_t size, int advice) noexcept
{
    if (adviceIsRefused) {
        memory = address;
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_madvise, address, size, advice));
}

extern "C" int munmap(void* address, size_t size) noexcept
{
    memoryIsReturned = memoryIsReturned || (memory != nullptr && address == memory);
    return static_cast<int>(syscall(SYS_munmap, address, size));
}

namespace {

class OwnPidTest : public testing::TestWithParam<bool> {
protected:
    OwnPidTest()
    {
        adviceIsRefused = GetParam();
        void* library = dlopen(GAKPPC_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
        const auto init = reinterpret_cast<int (*)()>(dlsym(library, "ppcInit"));
        sendHeartbeat_ = reinterpret_cast<SendHeartbeat>(dlsym(library, "GakHeartbeatSend"));
        EXPECT_EQ(init(), 0);
        listener_ = gaktest::RawListen(kServerId);
    }

    static int IdIn(const Fd& peer)
    {
        const std::optional<RawMessage> message = gaktest::ReadPpcFrame(peer, 20s);
        return message.has_value() ? static_cast<int>(message->sub_proc_pid) : -1;
    }

    using SendHeartbeat = uint32_t (*)(uint32_t device, uint32_t processType);
    SendHeartbeat sendHeartbeat_ = nullptr;
    Fd listener_;
};

TEST_P(OwnPidTest, ParentAndForkedChildReportTheirOwnIds)
{
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);  // from now on the parent's id may be remembered
    const Fd peer = RawAccept(listener_, 20s);
    EXPECT_EQ(IdIn(peer), getpid());
    ChildProcess child([this] { return sendHeartbeat_(1, 1) == 0 && sendHeartbeat_(1, 1) == 0 ? 0 : 1; });
    const Fd childsPeer = RawAccept(listener_, 20s);
    EXPECT_EQ(IdIn(childsPeer), child.pid());
    EXPECT_EQ(IdIn(childsPeer), child.pid());
    EXPECT_TRUE(child.WaitExit(20s).ExitedWith(0));
    EXPECT_EQ(sendHeartbeat_(0, 1), 0u);
    EXPECT_EQ(IdIn(peer), getpid());
}

// _Fork runs no fork handlers.
TEST_P(OwnPidTest, ChildOfABareForkReportsItsOwnId)
{
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);
    const Fd peer = RawAccept(listener_, 20s);
    EXPECT_EQ(IdIn(peer), getpid());
    const pid_t child = _Fork();
    if (child == 0) {
        gaktest::EndProcessAfter(20s);
        _exit(sendHeartbeat_(1, 1) == 0 ? 0 : 1);
    }
    const Fd childsPeer = RawAccept(listener_, 20s);
    EXPECT_EQ(IdIn(childsPeer), child);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_P(OwnPidTest, SystemIsAskedOnceUnlessTheAdviceIsRefused)
{
    if (gaktest::kUnderEmulator && !GetParam()) {
        GTEST_SKIP() << "the emulator follows no advice, and the library notices";
    }
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);
    CountingHook<Getpid> calls;
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);
    EXPECT_EQ(calls.Count() > 0, GetParam());
}

TEST_P(OwnPidTest, MemoryThatForkWouldNotWipeIsGivenBack)
{
    EXPECT_EQ(memoryIsReturned, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Advice, OwnPidTest, testing::Bool(),
                         [](const auto& refused) { return refused.param ? "IsRefused" : "IsTaken"; });

}  // namespace
