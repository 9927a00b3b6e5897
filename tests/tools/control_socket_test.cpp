#include "gakppcd/control_socket.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "common/exit_error.h"
#include "control_fixture.h"

namespace gaktest {
namespace {

constexpr char kContended[] = "/home/contended";

std::unique_ptr<tools::ControlSocket> ListenUnlessRefused()
{
    try {
        return std::make_unique<tools::ControlSocket>(kContended);
    } catch (const tools::ExitError&) {
        return nullptr;
    }
}

// By how many of ten at once.
long TakeLeftover()
{
    FakeDaemon(kContended).Reset();
    std::promise<void> start;
    const std::shared_future<void> gate = start.get_future().share();
    std::vector<std::future<std::unique_ptr<tools::ControlSocket>>> attempts;
    for (int i = 0; i < 10; ++i) {
        attempts.push_back(std::async(std::launch::async, [gate] {
            gate.wait();
            return ListenUnlessRefused();
        }));
    }
    start.set_value();
    std::vector<std::unique_ptr<tools::ControlSocket>> sockets;
    for (auto& attempt : attempts) {
        sockets.push_back(attempt.get());
    }
    return std::count_if(sockets.begin(), sockets.end(), [](const auto& socket) { return socket != nullptr; });
}

TEST(ControlSocketTest, OneOfManyGetsALeftover)
{
    for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(TakeLeftover(), 1);
        EXPECT_NE(access(kContended, F_OK), 0) << "it is gone with the socket";
    }
}

}  // namespace
}  // namespace gaktest
