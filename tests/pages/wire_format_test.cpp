// The bytes of docs/wire-format.md, sent to a real server and received from it.

#include <sstream>
#include <string>

#include "../device/gak/server_fixture.h"
#include "page.h"

namespace {

using gaktest::Bytes;
using gaktest::Hex;
using gaktest::Inbox;
using gaktest::kOk;
using gaktest::kServerId;
using gaktest::RawMessage;

constexpr uint32_t kDevice = 2;
constexpr uint32_t kPid = 4711;
constexpr uint32_t kCompute = 1;

// Each line of the block begins with bytes; what follows two spaces explains them.
Bytes BytesOf(const std::string& heading)
{
    std::istringstream lines(gaktest::CodeBlock(gaktest::ReadFile("docs/wire-format.md"), heading));
    Bytes bytes;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream digits(line.substr(0, line.find("  ")));
        for (std::string byte; digits >> byte;) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
        }
    }
    return bytes;
}

class WireFormatPageTest : public gaktest::ServerTest {};

TEST_F(WireFormatPageTest, HeartbeatIsReceivedAsThePageSays)
{
    Handle(qel::PPCMessage::HEARTBEAT);
    Create();
    const gaktest::Fd worker = Connect();
    const Bytes heartbeat = BytesOf("## One heartbeat, byte by byte");
    ASSERT_EQ(heartbeat.size(), 21u);
    ASSERT_TRUE(gaktest::WriteAll(worker, heartbeat));
    ASSERT_TRUE(Inbox::WaitFor(1));
    EXPECT_EQ(Inbox::Messages().front(), (RawMessage{2, kDevice, kServerId, kCompute, kPid, 0, {}}));
    EXPECT_NE(server_.GetPpcSession(kDevice, kPid), nullptr);
}

TEST_F(WireFormatPageTest, OrderIsSentAsThePageSays)
{
    Handle(qel::PPCMessage::HEARTBEAT);
    Create();
    const gaktest::Fd worker = Connect();
    ASSERT_TRUE(gaktest::WriteAll(worker, BytesOf("## One heartbeat, byte by byte")));
    ASSERT_TRUE(Inbox::WaitFor(1));
    ASSERT_EQ(server_.SendData(gaktest::Message({5, kServerId, kDevice, kCompute, kPid, 0, {}})), kOk);
    const Bytes expected = BytesOf("## The order to that worker");
    EXPECT_EQ(Hex(gaktest::ReadExactly(worker, expected.size(), std::chrono::seconds(10))), Hex(expected));
}

}  // namespace
