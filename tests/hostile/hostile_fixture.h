#ifndef GAKPPC_HOSTILE_FIXTURE_H
#define GAKPPC_HOSTILE_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "ppc.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"

namespace gaktest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using qel::PPCMessage;

constexpr auto kWait = 20s;
constexpr uint32_t kQuickUs = gaktest::kMeasuresAreOwn ? 50000 : 500000;

// A well-behaved worker that beats while others misbehave. Each beat carries the time at which it was sent, so that the
// daemon's handler knows how long it took to get there.
class Heartbeats {
public:
    static constexpr uint32_t kDevice = 3;
    static constexpr uint32_t kPid = 77;

    Heartbeats() : worker_(gaktest::RawConnect(kServerId)), thread_([this] { Beat(); }) {}
    ~Heartbeats() { EndQuietly(); }
    Heartbeats(const Heartbeats&) = delete;
    Heartbeats& operator=(const Heartbeats&) = delete;

    // Beats no more: the test is going to end its session.
    void EndQuietly()
    {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // The daemon's handler of heartbeats.
    static void Handle(const PPCMessage& msg)
    {
        const uint32_t latency = Microseconds() - msg.host_pid();
        Received& received = TheReceived();
        std::lock_guard<std::mutex> lock(received.mutex);
        received.latencies.push_back(latency);
        received.changed.notify_all();
    }

    // From now on the latencies count. Beats that are late at the end of what was measured count as well: they have to
    // arrive before it is judged.
    static void StartMeasuring()
    {
        std::lock_guard<std::mutex> lock(TheReceived().mutex);
        TheReceived().latencies.clear();
    }

    // Waits for so many beats.
    static testing::AssertionResult Arrive(size_t count)
    {
        Received& received = TheReceived();
        std::unique_lock<std::mutex> lock(received.mutex);
        if (received.changed.wait_for(lock, gaktest::Stretched(kWait),
                                      [&] { return received.latencies.size() >= count; })) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "only " << received.latencies.size() << " heartbeats arrived";
    }

    // Whether 99 of 100 beats took less than 50 ms, natively; at least 200 of them.
    static testing::AssertionResult StayQuick()
    {
        const testing::AssertionResult enough = Arrive(200);
        if (!enough) {
            return enough;
        }
        std::lock_guard<std::mutex> lock(TheReceived().mutex);
        std::vector<uint32_t> sorted = TheReceived().latencies;
        std::sort(sorted.begin(), sorted.end());
        const uint32_t p99 = sorted[sorted.size() * 99 / 100];
        testing::Test::RecordProperty("p99_us", static_cast<int>(p99));
        printf("%zu heartbeats: median %u us, p99 %u us, longest %u us\n", sorted.size(), sorted[sorted.size() / 2],
               p99, sorted.back());
        return p99 < kQuickUs ? testing::AssertionSuccess()
                              : testing::AssertionFailure() << "99 of 100 heartbeats took up to " << p99 << " us";
    }

private:
    struct Received {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<uint32_t> latencies;
    };
    static Received& TheReceived()
    {
        static auto* const received = new Received;
        return *received;
    }
    static uint32_t Microseconds()
    {
        return static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
    }

    void Beat()
    {
        while (!stop_ &&
               gaktest::WriteAll(worker_, gaktest::PpcFrame({2, kDevice, kServerId, 0, kPid, Microseconds(), {}}))) {
            std::this_thread::sleep_for(4ms);  // the pace of the heartbeats
        }
        EXPECT_TRUE(stop_) << "the daemon has closed the session of the well-behaved worker";
    }

    const Fd worker_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// A daemon, and one well-behaved worker whose heartbeats are measured from the start of the test.
class HostileTest : public testing::Test {
protected:
    HostileTest()
    {
        RaiseDescriptorLimit();
        EXPECT_EQ(ppcInit(), 0);
        server_.RegPPCSerMsgProcFunc(PPCMessage::HEARTBEAT, &Heartbeats::Handle);
        server_.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, &NoteStart);
        EXPECT_EQ(server_.CreateServer(kServerId), kOk);
        heartbeats_ = std::make_unique<Heartbeats>();
        EXPECT_TRUE(Heartbeats::Arrive(20));
        Heartbeats::StartMeasuring();
    }
    ~HostileTest() override
    {
        heartbeats_.reset();
        server_.Destroy();
    }

    static Fd Connect()
    {
        Fd peer = gaktest::RawConnect(kServerId);
        EXPECT_TRUE(peer.valid());
        return peer;
    }
    // The daemon's handler of starts. Garbage may count as a start as well, of no worker in particular.
    static void NoteStart(const PPCMessage& msg)
    {
        ++started_;
        std::lock_guard<std::mutex> lock(startedMutex_);
        startedPids_.insert(msg.sub_proc_pid());
    }
    static void ForgetStart(uint32_t pid)
    {
        std::lock_guard<std::mutex> lock(startedMutex_);
        startedPids_.erase(pid);
    }
    static bool HasStarted(uint32_t pid)
    {
        std::lock_guard<std::mutex> lock(startedMutex_);
        return startedPids_.count(pid) != 0;
    }
    // A worker that the daemon has heard of.
    static Fd ConnectAs(uint32_t device, uint32_t pid)
    {
        Fd peer = Connect();
        ForgetStart(pid);
        EXPECT_TRUE(gaktest::WriteAll(peer, gaktest::PpcFrame({0, device, kServerId, 0, pid, 0, {}})));
        EXPECT_TRUE(WaitUntil([&] { return HasStarted(pid); }, kWait));
        return peer;
    }
    static std::vector<Fd> ConnectMany(size_t count)
    {
        std::vector<Fd> peers;
        for (size_t number = 0; number < count; ++number) {
            peers.push_back(Connect());
        }
        return peers;
    }
    // Threads that receive; the well-behaved worker's is one of them.
    static size_t ReceiveThreads()
    {
        const std::vector<std::string> names = gaktest::ThreadNames();
        return static_cast<size_t>(std::count_if(
            names.begin(), names.end(), [](const std::string& name) { return name.rfind("ppc_srv_recv_", 0) == 0; }));
    }
    // Whether the daemon ends the session of every one of them.
    static void ExpectAllEnd(const std::vector<Fd>& peers)
    {
        for (const Fd& peer : peers) {
            ASSERT_TRUE(gaktest::ExpectEof(peer, kWait));
        }
    }
    // Whether newcomers are served.
    static void ExpectService()
    {
        const Fd peer = ConnectAs(0, 4711);
        PPCMessage order;
        order.set_type(PPCMessage::SHUTDOWN);
        order.set_sub_proc_pid(4711);
        EXPECT_EQ(qel::PpcServer::GetInstance().SendData(order), kOk);
        EXPECT_EQ(gaktest::ReadPpcFrame(peer, kWait), (gaktest::RawMessage{5, 0, 0, 0, 4711, 0, {}}));
    }

    static size_t ResidentKiB()
    {
        std::ifstream rollup("/proc/self/smaps_rollup");
        for (std::string line; std::getline(rollup, line);) {
            if (line.rfind("Rss:", 0) == 0) {
                return std::stoul(line.substr(4));
            }
        }
        ADD_FAILURE() << "no resident size";
        return 0;
    }

    static void RaiseDescriptorLimit()
    {
        rlimit limit = {};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

    inline static std::atomic<uint32_t> started_{0};
    inline static std::mutex startedMutex_;
    inline static std::set<uint32_t> startedPids_;
    qel::PpcServer& server_ = qel::PpcServer::GetInstance();
    std::unique_ptr<Heartbeats> heartbeats_;
};

}  // namespace gaktest

#endif
