#ifndef GAKPPC_HOSTILE_FIXTURE_H
#define GAKPPC_HOSTILE_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

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
#include <utility>
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

// A conforming worker that sends heartbeats while others misbehave. Each carries the time at which it was sent, so that
// the daemon's handler knows its latency. Next to each goes a message from one plain thread to another: its latency is
// what this machine has to do with it.
class Heartbeats {
public:
    static constexpr uint32_t kDevice = 3;
    static constexpr uint32_t kPid = 77;

    Heartbeats()
        : worker_(gaktest::RawConnect(kServerId)),
          plain_(gaktest::SocketPair()),
          receiver_([this] { ReceivePlain(); }),
          sender_([this] { Send(); })
    {
    }
    ~Heartbeats()
    {
        Stop();
        shutdown(plain_.first.get(), SHUT_RDWR);
        receiver_.join();
    }
    Heartbeats(const Heartbeats&) = delete;
    Heartbeats& operator=(const Heartbeats&) = delete;

    // Sends no more: the test is going to end its session.
    void Stop()
    {
        stop_ = true;
        if (sender_.joinable()) {
            sender_.join();
        }
    }

    // The daemon's handler of heartbeats.
    static void Handle(const PPCMessage& msg) { Note(&Received::latencies, msg.host_pid()); }

    // From now on the latencies count. Heartbeats that are late at the end of what was measured count as well: they
    // have to arrive before it is judged.
    static void StartMeasuring()
    {
        std::lock_guard<std::mutex> lock(TheReceived().mutex);
        TheReceived().latencies.clear();
        TheReceived().plainLatencies.clear();
    }

    // Waits for so many heartbeats.
    static testing::AssertionResult Arrive(size_t count)
    {
        Received& received = TheReceived();
        std::unique_lock<std::mutex> lock(received.mutex);
        if (received.changed.wait_for(lock, gaktest::Stretched(kWait), [&] {
                return received.latencies.size() >= count && received.plainLatencies.size() >= count;
            })) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "only " << received.latencies.size() << " heartbeats arrived";
    }

    // Whether 99 of 100 heartbeats take less than 50 ms, natively, beyond what the machine makes of it; at least 200 of
    // them.
    static testing::AssertionResult StayQuick()
    {
        const testing::AssertionResult enough = Arrive(200);
        if (!enough) {
            return enough;
        }
        std::lock_guard<std::mutex> lock(TheReceived().mutex);
        const uint32_t p99 = SortAndTakeP99(TheReceived().latencies);
        const uint32_t plainP99 = SortAndTakeP99(TheReceived().plainLatencies);
        testing::Test::RecordProperty("p99_us", static_cast<int>(p99));
        printf("%zu heartbeats: p99 %u us, longest %u us; p99 between two plain threads: %u us\n",
               TheReceived().latencies.size(), p99, TheReceived().latencies.back(), plainP99);
        return p99 < kQuickUs + 10 * plainP99
                   ? testing::AssertionSuccess()
                   : testing::AssertionFailure() << "99 of 100 heartbeats took up to " << p99 << " us, those between "
                                                 << "two plain threads " << plainP99 << " us";
    }

private:
    using Latencies = std::vector<uint32_t>;
    struct Received {
        std::mutex mutex;
        std::condition_variable changed;
        Latencies latencies;
        Latencies plainLatencies;
    };
    static Received& TheReceived()
    {
        static auto* const received = new Received;
        return *received;
    }
    static void Note(Latencies Received::*latencies, uint32_t sentAt)
    {
        const uint32_t latency = Microseconds() - sentAt;
        Received& received = TheReceived();
        std::lock_guard<std::mutex> lock(received.mutex);
        (received.*latencies).push_back(latency);
        received.changed.notify_all();
    }
    static uint32_t SortAndTakeP99(Latencies& latencies)
    {
        std::sort(latencies.begin(), latencies.end());
        return latencies[latencies.size() * 99 / 100];
    }
    static uint32_t Microseconds()
    {
        return static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count());
    }

    bool SendBoth() const
    {
        const uint32_t now = Microseconds();
        return write(plain_.first.get(), &now, sizeof(now)) == sizeof(now) &&
               gaktest::WriteAll(worker_, gaktest::PpcFrame({2, kDevice, kServerId, 0, kPid, Microseconds(), {}}));
    }
    void Send()
    {
        while (!stop_ && SendBoth()) {
            std::this_thread::sleep_for(4ms);  // the pace of the heartbeats
        }
        EXPECT_TRUE(stop_) << "the daemon has closed the session of the conforming worker";
    }
    void ReceivePlain() const
    {
        uint32_t sentAt = 0;
        while (recv(plain_.second.get(), &sentAt, sizeof(sentAt), MSG_WAITALL) == sizeof(sentAt)) {
            Note(&Received::plainLatencies, sentAt);
        }
    }

    const Fd worker_;
    const std::pair<Fd, Fd> plain_;
    std::atomic<bool> stop_{false};
    std::thread receiver_;
    std::thread sender_;
};

// A daemon, and one conforming worker whose heartbeats are measured from the start of the test.
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
    // A worker whose start the daemon has handled.
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
    // Threads that receive; the conforming worker's is one of them.
    static size_t ReceiveThreads() { return gaktest::ThreadIds("ppc_srv_recv_").size(); }
    // Whether the daemon ends the session of every one of them.
    static void ExpectAllEnd(const std::vector<Fd>& peers)
    {
        for (const Fd& peer : peers) {
            ASSERT_TRUE(gaktest::ExpectEof(peer, kWait));
        }
    }
    // Whether new workers are served.
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
