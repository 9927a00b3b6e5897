// A program that is not linked with the library loads and unloads it.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "process.h"
#include "raw_peer.h"

namespace {

using namespace std::chrono_literals;
using gaktest::Fd;
using gaktest::PpcFrame;
using gaktest::RawMessage;

constexpr uint32_t kServerId = 19280;

template <typename Fn>
Fn* Find(void* library, const char* name)
{
    return reinterpret_cast<Fn*>(dlsym(library, name));
}

TEST(DlopenTest, StaysWhenItIsUnloadedUnderItsThreads)
{
    const Fd listener = gaktest::RawListen(kServerId);
    for (int round = 0; round < 10; ++round) {
        void* library = dlopen(GAKPPC_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        auto* init = Find<int()>(library, "ppcInit");
        auto* wait = Find<uint32_t(uint32_t, uint32_t)>(library, "GakWaitForShutdown");
        auto* heartbeat = Find<uint32_t(uint32_t, uint32_t)>(library, "GakHeartbeatSend");
        ASSERT_TRUE(init != nullptr && wait != nullptr && heartbeat != nullptr) << dlerror();
        ASSERT_EQ(init(), 0);

        // Sessions outlive the handle: the first round's is used in all others.
        std::atomic<uint32_t> waited{1};
        static Fd connection;
        std::thread waiter([&] { waited = wait(0, 1); });
        if (round == 0) {
            connection = gaktest::RawAccept(listener, 20s);
        }
        const std::optional<RawMessage> started = gaktest::ReadPpcFrame(connection, 20s);
        ASSERT_TRUE(started.has_value());
        EXPECT_EQ(started->type, 0u);

        ASSERT_EQ(dlclose(library), 0) << dlerror();
        void* stillThere = dlopen(GAKPPC_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD);
        EXPECT_NE(stillThere, nullptr);
        if (stillThere != nullptr) {
            dlclose(stillThere);
        }
        EXPECT_EQ(heartbeat(0, 1), 0u);
        EXPECT_TRUE(gaktest::ReadPpcFrame(connection, 20s).has_value());
        EXPECT_TRUE(gaktest::WriteAll(connection, PpcFrame({5, 0, 0, 1, 0, 0, {}})));
        waiter.join();
        EXPECT_EQ(waited, 0u);
        EXPECT_TRUE(gaktest::ReadPpcFrame(connection, 20s).has_value());  // its answer
    }
}

}  // namespace
