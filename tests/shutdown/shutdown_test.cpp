// The server is created and destroyed again and again: Destroy is quick, whatever its workers do. It waits for no time
// to pass, only for its own threads, which it wakes, and takes little processor time. On a busy machine it may last
// longer.

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "deadline.h"
#include "fault.h"
#include "ppc.h"
#include "ppc_server.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"
#include "silent_log.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ExpectEof;
using gaktest::Fd;
using gaktest::WaitUntil;
using gaktest::WriteAll;
using qel::PPCMessage;
using Microseconds = std::chrono::microseconds;

constexpr uint32_t kOk = 0x1011000;
constexpr uint32_t kServerId = 19280;
constexpr uint32_t kDevice = 2;

// Sanitizers and emulators make every step many times slower: fewer rounds, and what a round takes is theirs mostly.
constexpr size_t kRounds = gaktest::kMeasuresAreOwn ? 1000 : 100;
constexpr Microseconds kUsual = gaktest::kMeasuresAreOwn ? 20ms : 500ms;  // for all but one round of a hundred

std::atomic<size_t> starts{0};

void CountStart(const PPCMessage& /*msg*/)
{
    ++starts;
}

class ShutdownTest : public testing::Test {
protected:
    ShutdownTest()
    {
        EXPECT_EQ(ppcInit(), 0);
        threads_ = gaktest::ThreadCount();
        descriptors_ = gaktest::OpenDescriptors();
    }
    ~ShutdownTest() override
    {
        server_.Destroy();
        EXPECT_TRUE(WaitUntil([this] { return gaktest::ThreadCount() == threads_; }, 10s));
        EXPECT_EQ(gaktest::OpenDescriptors(), descriptors_);
    }

    void Create()
    {
        starts = 0;
        server_.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, &CountStart);
        ASSERT_EQ(server_.CreateServer(kServerId), kOk);
    }

    // Workers that have reported their start and are silent from then on.
    std::vector<Fd> ConnectIdle(size_t count)
    {
        std::vector<Fd> workers;
        for (size_t i = 0; i < count; ++i) {
            workers.push_back(gaktest::RawConnect(static_cast<int>(kServerId)));
            EXPECT_TRUE(workers.back().valid());
            const gaktest::RawMessage start{0, kDevice, kServerId, 0, static_cast<uint32_t>(i + 1), 0, {}};
            EXPECT_TRUE(WriteAll(workers.back(), gaktest::PpcFrame(start)));
        }
        EXPECT_TRUE(WaitUntil([&] { return starts == count; }, 10s));
        return workers;
    }

    void Destroy()
    {
        const Microseconds before = ProcessorTime();
        ASSERT_EQ(server_.Destroy(), kOk);
        times_.push_back(ProcessorTime() - before);
    }

    void ExpectShort()
    {
        ASSERT_EQ(times_.size(), kRounds);
        std::sort(times_.begin(), times_.end());
        const Microseconds usual = times_[times_.size() * 99 / 100 - 1];
        EXPECT_LT(usual.count(), kUsual.count());
        EXPECT_EQ(timedWaits_.Count(), 0U);
        RecordProperty("p99_us", std::to_string(usual.count()));
        printf("processor time of Destroy: median %lld us, p99 %lld us, longest %lld us\n",
               static_cast<long long>(times_[times_.size() / 2].count()), static_cast<long long>(usual.count()),
               static_cast<long long>(times_.back().count()));
    }

    void RunWithIdleSessions(size_t sessions)
    {
        for (size_t round = 0; round < kRounds && !HasFailure(); ++round) {
            Create();
            const std::vector<Fd> workers = ConnectIdle(sessions);
            Destroy();
            EXPECT_TRUE(std::all_of(workers.begin(), workers.end(),
                                    [](const Fd& worker) { return ExpectEof(worker, 10s) == true; }));
        }
        ExpectShort();
    }

    qel::PpcServer& server_ = qel::PpcServer::GetInstance();

private:
    const gaktest::SilentLog silent_;

    // Of this thread.
    static Microseconds ProcessorTime()
    {
        timespec spent = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
        return std::chrono::duration_cast<Microseconds>(std::chrono::seconds(spent.tv_sec) +
                                                        std::chrono::nanoseconds(spent.tv_nsec));
    }

    size_t threads_ = 0;
    size_t descriptors_ = 0;
    std::vector<Microseconds> times_;
    const gaktest::CountingHook<gaktest::calls::Poll> timedWaits_;
};

TEST_F(ShutdownTest, IsShortWithoutSessions)
{
    RunWithIdleSessions(0);
}

TEST_F(ShutdownTest, IsShortWithOneIdleSession)
{
    RunWithIdleSessions(1);
}

TEST_F(ShutdownTest, IsShortWithFiftyIdleSessions)
{
    RunWithIdleSessions(50);
}

// A message that no socket buffer takes whole: its sender waits for the worker to read.
PPCMessage HugeOrder()
{
    PPCMessage msg;
    msg.set_type(PPCMessage::SHUTDOWN);
    msg.set_dest_id(kDevice);
    msg.set_sub_proc_pid(1);
    msg.mutable_lib_names()->add_lib_name(std::string(1U << 20U, 'x'));
    return msg;
}

// The first bytes have come, and the rest cannot until they are read.
bool HasBegun(const Fd& worker)
{
    int waiting = 0;
    return ioctl(worker.get(), FIONREAD, &waiting) == 0 && waiting > 0;
}

TEST_F(ShutdownTest, IsShortWithSenderBlockedOnStoppedWorker)
{
    const PPCMessage order = HugeOrder();
    for (size_t round = 0; round < kRounds && !HasFailure(); ++round) {
        Create();
        const std::vector<Fd> workers = ConnectIdle(1);
        std::atomic<bool> returned{false};
        uint32_t status = 0;
        std::thread sender([&] {
            status = server_.SendData(order);
            returned = true;
        });
        EXPECT_TRUE(WaitUntil([&] { return HasBegun(workers[0]); }, 10s));
        EXPECT_FALSE(returned);
        Destroy();
        sender.join();
        EXPECT_EQ(status, 0x1093037U);
    }
    ExpectShort();
}

// Connects as fast as it can, and lets go of what it got from time to time.
class Connector {
public:
    Connector() : thread_([this] { Run(); }) {}
    ~Connector()
    {
        stop_ = true;
        thread_.join();
    }
    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;

    size_t Connected() const { return connected_; }

private:
    static constexpr size_t kKept = 20;

    void Run()
    {
        std::vector<Fd> sockets;
        while (!stop_) {
            Fd socket = gaktest::RawConnect(static_cast<int>(kServerId));
            if (!socket.valid()) {
                std::this_thread::yield();  // between Destroy and the next server
                continue;
            }
            ++connected_;
            sockets.push_back(std::move(socket));
            if (sockets.size() == kKept) {
                sockets.clear();
            }
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<size_t> connected_{0};
    std::thread thread_;
};

TEST_F(ShutdownTest, IsShortWhileConnectsArrive)
{
    Connector first;
    Connector second;
    for (size_t round = 0; round < kRounds && !HasFailure(); ++round) {
        const size_t before = first.Connected() + second.Connected();
        Create();
        EXPECT_TRUE(WaitUntil([&] { return first.Connected() + second.Connected() > before; }, 10s));
        Destroy();
    }
    ExpectShort();
}

// Threads that ended in the former server's time are still on record. None of them may be mistaken for a thread of the
// new server, which lives: joining it would last as long as its session.
TEST_F(ShutdownTest, ReapingAfterReCreationReturnsAtOnce)
{
    constexpr size_t kReCreations = 100;
    constexpr size_t kSessions = 4;
    // Not counted in the loop: the system still lists threads for a moment that the round before has joined.
    const size_t idleThreads = gaktest::ThreadCount() + 1;
    for (size_t round = 0; round < kReCreations && !HasFailure(); ++round) {
        Create();
        std::vector<Fd> workers = ConnectIdle(kSessions);
        workers.clear();
        EXPECT_TRUE(WaitUntil([&] { return gaktest::ThreadCount() == idleThreads; }, 10s));
        ASSERT_EQ(server_.Destroy(), kOk);

        Create();
        workers = ConnectIdle(kSessions);
        server_.JoinAllPPCRcvThreads();
        EXPECT_TRUE(WaitUntil([&] { return gaktest::ThreadCount() == idleThreads + kSessions; }, 10s))
            << gaktest::ThreadCount();
        ASSERT_EQ(server_.Destroy(), kOk);
    }
}

}  // namespace
