// Searches for orders that disturb a daemon: random changes of valid orders, cut at random places, on several
// connections at once. Each line must get one answer of its own, in its order, as a model says. GAKPPC_SEARCH_SEED and
// GAKPPC_SEARCH_ROUNDS in the environment repeat a search or make it longer.

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "control_fixture.h"

namespace gaktest {
namespace {

using Random = std::mt19937;

size_t Below(Random& random, size_t limit)
{
    return std::uniform_int_distribution<size_t>(0, limit - 1)(random);
}

unsigned FromEnvironment(const char* name, unsigned otherwise)
{
    const char* const value = getenv(name);
    return value == nullptr ? otherwise : static_cast<unsigned>(std::stoul(value));
}

const std::vector<std::string> kOrders{R"({"order":"workers"})", R"({"order":"shutdown","device":1,"pid":99})",
                                       R"({"order":"shutdown","device":2,"pid":98,"wait":true})",
                                       R"({"order":"start-custom","device":0,"pid":97})"};

// One of the orders with up to three bytes replaced, removed or inserted.
std::string RandomLine(Random& random)
{
    std::string line = kOrders[Below(random, kOrders.size())];
    for (size_t changes = Below(random, 4); changes > 0 && !line.empty(); --changes) {
        const size_t at = Below(random, line.size());
        const char byte = static_cast<char>(Below(random, 256));
        switch (Below(random, 3)) {
            case 0:
                line[at] = byte;
                break;
            case 1:
                line.erase(at, 1 + Below(random, 3));
                break;
            default:
                line.insert(at, 1 + Below(random, 3), byte);
                break;
        }
    }
    return line;
}

// What a line gets. The only worker of the daemon is one that no line names.
enum class Wanted { kGranted, kNoWorker, kRefused };

Wanted Expect(const std::string& line)
{
    const auto order = nlohmann::json::parse(line, nullptr, false);
    if (!order.is_object() || !order.contains("order") || !order["order"].is_string()) {
        return Wanted::kRefused;
    }
    if (order == nlohmann::json{{"order", "workers"}}) {
        return Wanted::kGranted;
    }
    const bool isNumbered = order.contains("device") && order["device"].is_number_unsigned() && order.contains("pid") &&
                            order["pid"].is_number_unsigned() && order["device"] <= 0xFFFFFFFFU &&
                            order["pid"] <= 0xFFFFFFFFU;
    const bool mayWait = order["order"] == "shutdown" && order.contains("wait") && order["wait"].is_boolean();
    const bool isKnown = order["order"] == "shutdown" || order["order"] == "start-custom";
    return isKnown && isNumbered && order.size() == (mayWait ? 4U : 3U) ? Wanted::kNoWorker : Wanted::kRefused;
}

bool Fits(const std::string& answer, Wanted wanted)
{
    const bool isGrant = answer.rfind(R"({"ok":true,"daemon":)", 0) == 0;
    const bool isRefusal = answer.rfind(R"({"ok":false,"error":")", 0) == 0;
    const bool namesWorker = answer.find("no worker with device ") != std::string::npos;
    return !answer.empty() && answer.back() == '\n' &&
           (wanted == Wanted::kGranted ? isGrant : isRefusal && namesWorker == (wanted == Wanted::kNoWorker));
}

// One connection of a round, and the lines that it sends.
struct Client {
    explicit Client(const std::string& path, Random& random) : peer(path)
    {
        for (size_t count = Below(random, 6); count > 0; --count) {
            std::string text = RandomLine(random) + "\n";
            // A changed byte may have made two lines of it.
            for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
                lines.push_back(text.substr(at, end - at));
            }
            bytes += text;
        }
        leaves = Below(random, 5) == 0;
    }

    ControlPeer peer;
    std::vector<std::string> lines;
    std::string bytes;
    size_t sent = 0;
    bool leaves = false;  // without having read its answers
};

// When the daemon has taken everything, it sees the next piece by itself.
void WaitUntilTaken(const Fd& socket)
{
    EXPECT_TRUE(WaitUntil(
        [&socket] {
            int left = 0;
            return ioctl(socket.get(), SIOCOUTQ, &left) == -1 || left == 0;
        },
        kLimit));
}

// Sends what all clients have to send, in pieces of random length and in random turns.
void SendInPieces(std::vector<std::unique_ptr<Client>>& clients, Random& random)
{
    for (bool isMore = true; isMore;) {
        isMore = false;
        for (const auto& client : clients) {
            const size_t left = client->bytes.size() - client->sent;
            const size_t piece = left == 0 ? 0 : 1 + Below(random, std::min<size_t>(left, 40));
            if (!client->peer.Send(client->bytes.substr(client->sent, piece))) {
                client->sent = client->bytes.size();  // ended: its answers tell whether that was right
            }
            client->sent += piece;
            isMore = isMore || client->sent < client->bytes.size();
        }
        for (const auto& client : clients) {
            if (Below(random, 4) == 0) {
                WaitUntilTaken(client->peer.socket());
            }
        }
    }
}

// The first line whose answer is wrong; empty when all are right.
std::string SearchRound(const std::string& path, Random& random)
{
    std::vector<std::unique_ptr<Client>> clients;
    for (size_t count = 1 + Below(random, 6); count > 0; --count) {
        clients.push_back(std::make_unique<Client>(path, random));
    }
    SendInPieces(clients, random);
    for (const auto& client : clients) {
        if (client->leaves) {
            continue;
        }
        client->peer.EndSending();
        for (const std::string& line : client->lines) {
            const std::string answer = client->peer.ReadLine();
            if (!Fits(answer, Expect(line))) {
                return "answer \"" + answer + "\" to " + line + " (" + Hex(ToBytes(line)) + ")";
            }
        }
        if (!ExpectEof(client->peer.socket(), kLimit)) {
            return "more answers than lines after " + client->bytes;
        }
    }
    return "";
}

std::string Search(const std::string& path, unsigned seed, unsigned rounds)
{
    Random random(seed);
    for (unsigned round = 0; round < rounds; ++round) {
        const std::string found = SearchRound(path, random);
        if (!found.empty()) {
            return "round " + std::to_string(round) + ": " + found;
        }
    }
    return "";
}

TEST(ControlSearch, NoOrderDisturbsTheDaemon)
{
    const unsigned seed = FromEnvironment("GAKPPC_SEARCH_SEED", std::random_device()());
    std::cout << "GAKPPC_SEARCH_SEED=" << seed << std::endl;
    const auto daemon = StartDaemon();
    const Fd worker = StartWorker(*daemon);
    EXPECT_EQ(Search(kControlPath, seed, FromEnvironment("GAKPPC_SEARCH_ROUNDS", 60)), "") << "seed " << seed;
    ASSERT_TRUE(WriteAll(worker, PpcFrame(FromWorker(2))));
    EXPECT_TRUE(daemon->WaitForOut("HEARTBEAT"));
    EXPECT_FALSE(WaitReadable(worker, std::chrono::milliseconds(0))) << "it was told something";
    EXPECT_EQ(CountOf(daemon->err(), "gakppcd: "), 0U) << daemon->err();
}

// Between the search and the daemon: loses a byte that comes first in a piece, if it is a quotation mark.
TEST(ControlSearch, FindsADefectInTheHandlingOfPieces)
{
    const auto daemon = StartDaemon();
    Tool relay("python3", {GAKPPC_TOOL_TEST_DIR "/defective_relay.py", "/home/relay", kControlPath});
    ASSERT_TRUE(relay.WaitForOut("ready"));
    EXPECT_NE(Search("/home/relay", 1, 60), "");
}

}  // namespace
}  // namespace gaktest
