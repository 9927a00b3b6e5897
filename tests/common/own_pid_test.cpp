// The process id in what a worker sends. The library remembers it and has it forgotten in forked children, for which it
// registers a fork handler when it is loaded; this program can have that refused.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>

#include "fault.h"
#include "process.h"
#include "raw_peer.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::CountingHook;
using gaktest::Fd;
using gaktest::RawAccept;
using gaktest::RawMessage;

constexpr int kServerId = 19280;

bool forkHandlersAreRefused = false;

struct Getpid : gaktest::calls::OfGakppc {
    static constexpr const char* kSymbol = "getpid";
    using Signature = pid_t();
};

}  // namespace

// Called from everywhere and by a sanitizer before it is ready, so it does without whatever a sanitizer watches.
extern "C" __attribute__((no_sanitize("thread"))) int __register_atfork(void (*prepare)(), void (*parent)(),
                                                                        void (*child)(), void* object)
{
    if (forkHandlersAreRefused) {
        return ENOMEM;
    }
    using Register = int (*)(void (*)(), void (*)(), void (*)(), void*);
    const auto real = reinterpret_cast<Register>(dlsym(RTLD_NEXT, "__register_atfork"));
    return real(prepare, parent, child, object);
}

namespace {

class OwnPidTest : public testing::TestWithParam<bool> {
protected:
    OwnPidTest()
    {
        forkHandlersAreRefused = GetParam();
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

TEST_P(OwnPidTest, SystemIsAskedOnceUnlessForkHandlersAreRefused)
{
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);
    CountingHook<Getpid> calls;
    ASSERT_EQ(sendHeartbeat_(0, 1), 0u);
    EXPECT_EQ(calls.Count() > 0, GetParam());
}

INSTANTIATE_TEST_SUITE_P(ForkHandlers, OwnPidTest, testing::Bool(),
                         [](const auto& refused) { return refused.param ? "AreRefused" : "AreTaken"; });

}  // namespace
