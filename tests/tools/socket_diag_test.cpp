#include "common/socket_diag.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "raw_peer.h"
#include "sanitizer_options.h"

namespace gaktest {
namespace {

constexpr int kServer = 19280;
constexpr std::chrono::seconds kLimit{20};

uint32_t NumberOf(const Fd& socket)
{
    struct stat status {};
    EXPECT_EQ(fstat(socket.get(), &status), 0);
    return static_cast<uint32_t>(status.st_ino);
}

class SocketDiagTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (kUnderEmulator) {
            GTEST_SKIP() << "the emulator knows no NETLINK_SOCK_DIAG";
        }
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);  // the sockets of a busy machine would only take time
        listener_ = RawListen(kServer);
    }

    void Connect(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            ends_.push_back(RawConnect(kServer));
            ends_.push_back(RawAccept(listener_, kLimit));
        }
    }

    Fd listener_;
    std::vector<Fd> ends_;
};

// So many that the kernel's answer comes in parts; others come and go between them.
TEST_F(SocketDiagTest, SocketsThatComeAndGoHideNoOther)
{
    Connect(500);
    std::set<uint32_t> expected{NumberOf(listener_)};
    for (const Fd& end : ends_) {
        expected.insert(NumberOf(end));
    }
    std::atomic<bool> stop{false};
    std::thread others([&] {
        std::vector<Fd> some(200);
        for (size_t i = 0; !stop; i = (i + 2) % some.size()) {
            some[i] = RawConnect(kServer);
            some[i + 1] = RawAccept(listener_, kLimit);
        }
    });
    const Fd diag = tools::OpenSocketDiag();
    size_t missing = 0;
    size_t twice = 0;
    for (int i = 0; i < 200; ++i) {
        std::set<uint32_t> missed = expected;
        const auto sockets = tools::ListeningAndConnectedSockets(diag).value_or(std::vector<tools::UnixSocket>());
        for (const tools::UnixSocket& socket : sockets) {
            const bool isFirst = missed.erase(socket.number) == 1;
            twice += !isFirst && expected.count(socket.number) == 1 ? 1 : 0;
        }
        missing += missed.size();
    }
    stop = true;
    others.join();
    EXPECT_EQ(missing, 0U);
    EXPECT_EQ(twice, 0U);
}

}  // namespace
}  // namespace gaktest
