// Workers come and go as fast as they can while the daemon sends to living and to dead ones. Addresses of session
// records, descriptor numbers and process ids are used again all the time; a message must still reach the worker that
// it names, or nobody.

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "deadline.h"
#include "ppc.h"
#include "ppc_server.h"
#include "process.h"
#include "raw_peer.h"
#include "silent_log.h"

namespace {

using namespace std::chrono_literals;
using gaktest::Deadline;
using gaktest::Fd;
using gaktest::ReadPpcFrame;
using gaktest::WaitReadable;
using gaktest::WaitUntil;
using gaktest::WriteAll;
using qel::PPCMessage;

constexpr uint32_t kOk = 0x1011000;
constexpr uint32_t kSendFailed = 0x1093037;
constexpr uint32_t kServerId = 19280;
constexpr uint32_t kDevices = 4;
// More than the driver remembers when they have ended (4096): addresses of records are used again.
constexpr uint32_t kSessions = 6000;
constexpr uint32_t kRemembered = 4096;
constexpr size_t kMessages = 10000;  // that workers received, and as many that dead ones did not
constexpr int kWorkers = 8;
constexpr int kSenders = 2;
constexpr int kCloseOneIn = 50;

enum class State { kStarting, kLive, kClosing, kDead };

// A worker as the daemon addresses it. The life tells its sessions apart.
struct Pair {
    uint32_t device = 0;
    uint32_t pid = 0;
    uint32_t life = 0;
    State state = State::kStarting;

    bool SameLife(const Pair& other) const { return life == other.life && state == other.state; }
};

// All pairs that ever were.
class Register {
public:
    using Index = size_t;

    Index Enter(const Pair& pair)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pairs_.push_back(pair);
        return pairs_.size() - 1;
    }
    void Set(Index index, uint32_t life, State state)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pairs_[index].life = life;
        pairs_[index].state = state;
    }
    Pair Get(Index index)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return pairs_[index];
    }
    // Any pair of that state, looked for from a random place.
    std::optional<Index> Find(State state, size_t random)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < pairs_.size(); ++i) {
            const Index index = (random + i) % pairs_.size();
            if (pairs_[index].state == state) {
                return index;
            }
        }
        return std::nullopt;
    }
    // The dead pair whose last life was that one.
    std::optional<Index> FindEnded(uint32_t life)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (Index index = 0; index < pairs_.size(); ++index) {
            if (pairs_[index].life == life && pairs_[index].state == State::kDead) {
                return index;
            }
        }
        return std::nullopt;
    }
    // The handle of a living pair, which is about to be closed with it.
    void* TakeForClosing(Index index)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Pair& pair = pairs_[index];
        if (pair.state != State::kLive) {
            return nullptr;
        }
        pair.state = State::kClosing;
        return qel::PpcServer::GetInstance().GetPpcSession(pair.device, pair.pid);
    }

private:
    std::mutex mutex_;
    std::vector<Pair> pairs_;
};

// The lives of which the daemon has heard; a life is registered before its worker connects.
constexpr size_t kMaxLives = 1U << 20U;
std::unique_ptr<std::atomic<bool>[]> heard;

void OnStart(const PPCMessage& msg)
{
    heard[msg.host_pid() % kMaxLives] = true;
}

struct Tally {
    std::atomic<size_t> toLiving{0};
    std::atomic<size_t> toDead{0};
    std::atomic<size_t> received{0};
    std::atomic<size_t> misdelivered{0};
    std::atomic<size_t> lostByLiving{0};  // SendData to a living pair failed
    std::atomic<size_t> takenByDead{0};   // SendData to a dead pair did not give 0x1093037
    std::atomic<size_t> broken{0};        // workers that could not connect, or read no message
};

class Storm {
public:
    void RunWorker(unsigned seed)
    {
        std::minstd_rand random(seed);
        Pair pair;
        Register::Index index = 0;
        while (!stop_) {
            const bool comesBack = pair.pid != 0 && random() % 2 == 0;
            pair.life = ++lastLife_;
            if (comesBack) {
                pairs_.Set(index, pair.life, State::kStarting);
            } else {
                pair.device = static_cast<uint32_t>(random() % kDevices);
                pair.pid = pair.life + 1;
                index = pairs_.Enter(pair);
            }
            Live(pair, index, 1 + random() % 5);
        }
    }

    void RunSender(unsigned seed)
    {
        std::minstd_rand random(seed);
        while (!IsDone() && !limit_.Passed()) {
            const State wanted = tally_.toDead >= 2 * kMessages || random() % 2 == 0 ? State::kLive : State::kDead;
            std::optional<Register::Index> index;
            const bool found = WaitUntil([&] { return (index = Pick(wanted, random)).has_value(); }, 20s);
            ASSERT_TRUE(found);
            if (wanted == State::kLive && random() % kCloseOneIn == 0) {
                CloseOne(*index);
            } else {
                SendTo(*index);
            }
        }
    }

    bool IsDone() const { return tally_.received >= kMessages && tally_.toDead >= kMessages && lastLife_ >= kSessions; }
    void Stop() { stop_ = true; }
    const Tally& GetTally() const { return tally_; }
    uint32_t Lives() const { return lastLife_; }

private:
    // One session: reports its start, reads so many messages, and goes.
    void Live(const Pair& pair, Register::Index index, size_t messages)
    {
        Fd socket = gaktest::RawConnect(static_cast<int>(kServerId));
        const gaktest::RawMessage start{0, pair.device, kServerId, 0, pair.pid, pair.life, {}};
        if (!socket.valid() || !WriteAll(socket, gaktest::PpcFrame(start)) ||
            !WaitUntil([&] { return heard[pair.life % kMaxLives].load(); }, 20s)) {
            ++tally_.broken;
            return;
        }
        pairs_.Set(index, pair.life, State::kLive);
        while (!stop_ && messages-- > 0 && Receive(socket, pair)) {
        }
        pairs_.Set(index, pair.life, State::kClosing);
        socket.Reset();
        pairs_.Set(index, pair.life, State::kDead);
    }

    // False when the session is over, or nothing came for a while.
    bool Receive(const Fd& socket, const Pair& pair)
    {
        if (!WaitReadable(socket, 20ms)) {
            return false;
        }
        const std::optional<gaktest::RawMessage> msg = ReadPpcFrame(socket, 20s);
        if (!msg.has_value()) {
            return false;
        }
        ++tally_.received;
        if (msg->dest_id != pair.device || msg->sub_proc_pid != pair.pid) {
            ++tally_.misdelivered;
        }
        return true;
    }

    // Every other dead one is of those whose record the driver is just forgetting, unless it is still in use.
    std::optional<Register::Index> Pick(State wanted, std::minstd_rand& random)
    {
        if (wanted == State::kDead && random() % 2 == 0) {
            const std::optional<Register::Index> index =
                pairs_.FindEnded(lastLife_ - kRemembered - static_cast<uint32_t>(random() % 64));
            if (index.has_value()) {
                return index;
            }
        }
        return pairs_.Find(wanted, random());
    }

    void SendTo(Register::Index index)
    {
        const Pair before = pairs_.Get(index);
        PPCMessage msg;
        msg.set_type(PPCMessage::SHUTDOWN);
        msg.set_dest_id(before.device);
        msg.set_sub_proc_pid(before.pid);
        const uint32_t status = server_.SendData(msg);
        if (!pairs_.Get(index).SameLife(before)) {
            return;  // it came or went meanwhile: both results are right
        }
        if (before.state == State::kLive) {
            ++tally_.toLiving;
            tally_.lostByLiving += status != kOk ? 1 : 0;
        } else if (before.state == State::kDead) {
            ++tally_.toDead;
            tally_.takenByDead += status != kSendFailed ? 1 : 0;
        }
    }

    void CloseOne(Register::Index index)
    {
        void* session = pairs_.TakeForClosing(index);
        if (session != nullptr) {
            server_.CloseSomeSession(session);
        }
    }

    qel::PpcServer& server_ = qel::PpcServer::GetInstance();
    Register pairs_;
    Tally tally_;
    std::atomic<bool> stop_{false};
    std::atomic<uint32_t> lastLife_{0};
    const Deadline limit_ = 90s;
};

TEST(MisdeliveryTest, MessagesReachOnlyTheWorkerTheyName)
{
    const gaktest::SilentLog silent;
    ASSERT_EQ(ppcInit(), 0);
    const size_t threads = gaktest::ThreadCount();
    const size_t descriptors = gaktest::OpenDescriptors();
    heard = std::make_unique<std::atomic<bool>[]>(kMaxLives);
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    server.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, &OnStart);
    ASSERT_EQ(server.CreateServer(kServerId), kOk);
    Storm storm;
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < kWorkers; ++i) {
        workers.emplace_back([&storm, i] { storm.RunWorker(1000 + i); });
    }
    std::atomic<int> sendersLeft{kSenders};
    std::vector<std::thread> senders;
    for (unsigned i = 0; i < kSenders; ++i) {
        senders.emplace_back([&storm, &sendersLeft, i] {
            storm.RunSender(1 + i);
            --sendersLeft;
        });
    }
    // The daemon reaps from time to time.
    while (!WaitUntil([&] { return storm.IsDone(); }, 20ms) && sendersLeft != 0) {
        server.JoinAllPPCRcvThreads();
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    storm.Stop();
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(server.Destroy(), kOk);

    const Tally& tally = storm.GetTally();
    printf("to living workers %zu, to dead ones %zu, received %zu, sessions %u\n", tally.toLiving.load(),
           tally.toDead.load(), tally.received.load(), storm.Lives());
    EXPECT_EQ(tally.misdelivered, 0U);
    EXPECT_EQ(tally.lostByLiving, 0U);
    EXPECT_EQ(tally.takenByDead, 0U);
    EXPECT_EQ(tally.broken, 0U);
    EXPECT_GE(storm.Lives(), kSessions);
    EXPECT_GE(tally.toDead, kMessages);
    EXPECT_GE(tally.received, kMessages);
    EXPECT_TRUE(WaitUntil([&] { return gaktest::ThreadCount() == threads; }, 10s));
    EXPECT_EQ(gaktest::OpenDescriptors(), descriptors);
}

}  // namespace
