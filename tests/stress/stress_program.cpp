// Everything at once, for the sanitizers to watch: stress_program SECONDS
//
// A third of the time each: a server that is created and destroyed in a loop while workers and senders use it; storms
// of peers that connect and close; processes that exit while their threads are inside every call. Each part runs in a
// process of its own.

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "gak.h"
#include "ppc_client.h"
#include "process.h"
#include "raw_peer.h"
#include "silent_log.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using gaktest::Bytes;
using gaktest::Fd;
using gaktest::kServerId;
using gaktest::MessageTo;
using gaktest::PpcFrame;
using gaktest::WriteAll;
using qel::PpcClient;
using qel::PPCMessage;
using qel::PpcServer;

constexpr GakWaitType kCompute = 1;
constexpr uint32_t kDevices = 4;
constexpr uint32_t kPids = 50;
constexpr auto kLonger = 30s;  // how much longer a part may run until enough has happened

std::atomic<bool> stop{false};
std::atomic<uint64_t> handled{0};

// Evenly below `limit`.
uint32_t Below(uint32_t limit, std::mt19937& random)
{
    return static_cast<uint32_t>(random()) % limit;
}

// Runs a function on a thread of its own, again and again until `stop`.
class Loop {
public:
    explicit Loop(std::function<void(std::mt19937& random)> body)
        : thread_([body = std::move(body)] {
              static std::atomic<uint32_t> seed{1};
              std::mt19937 random(seed++);
              while (!stop) {
                  body(random);
              }
          })
    {
    }
    ~Loop() { thread_.join(); }
    Loop(Loop&&) = delete;

private:
    std::thread thread_;
};

// ---- The daemon's side ----

// Orders every fourth worker that starts to end, and reports the custom process as started whenever it is asked for.
void HandleMessage(const PPCMessage& msg)
{
    const uint64_t number = ++handled;
    if (msg.type() == PPCMessage::NOTIFY_VEXOINFO) {
        PpcServer::GetInstance().SendData(
            MessageTo(msg.src_id(), msg.sub_proc_pid(), PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE));
    } else if (msg.type() == PPCMessage::START_RSP && number % 4 == 0) {
        PpcServer::GetInstance().SendData(
            MessageTo(msg.src_id(), msg.sub_proc_pid(), PPCMessage::SHUTDOWN, msg.proc_type()));
    }
}

void UseServer(std::mt19937& random)
{
    PpcServer& server = PpcServer::GetInstance();
    const uint32_t device = Below(kDevices, random);
    const uint32_t pid = Below(kPids, random);
    switch (Below(5, random)) {
        case 0:
            server.CloseSomeSession(server.GetPpcSession(device, pid));
            break;
        case 1:
            server.JoinAllPPCRcvThreads();
            break;
        case 2:
            server.IsPPCServerRunning();
            break;
        default:
            server.SendData(MessageTo(device, pid, PPCMessage::HEARTBEAT, PPCMessage::ZOLT));
            break;
    }
}

// ---- The workers' side ----

void BeRawWorker(std::mt19937& random)
{
    const Fd worker = gaktest::RawConnect(kServerId);
    if (!worker.valid()) {
        std::this_thread::yield();
        return;
    }
    const uint32_t device = Below(kDevices, random);
    const uint32_t pid = Below(kPids, random);
    switch (Below(8, random)) {
        case 0:
            break;
        case 1:  // less than a length field
            WriteAll(worker, Bytes(1 + Below(3, random), 0));
            break;
        case 2:  // less than a frame
            WriteAll(worker, {0, 0, 16, 0, 1, 2, 3});
            break;
        case 3:
            WriteAll(worker, gaktest::FrameBytes(Bytes(Below(100, random), static_cast<uint8_t>(random()))));
            break;
        default:
            for (uint32_t count = Below(20, random); count > 0; --count) {
                WriteAll(worker, PpcFrame({Below(5, random), device, kServerId, Below(3, random), pid, 0, {}}));
            }
            break;
    }
}

void UseClient(std::mt19937& random)
{
    const uint32_t device = Below(kDevices, random);
    if (Below(8, random) == 0) {
        GakDestory(device, kCompute);
    } else {
        GakHeartbeatSend(device, Below(3, random));
    }
}

void WaitForShutdown(std::mt19937& random)
{
    GakWaitForShutdown(Below(kDevices, random), kCompute);
}

// ---- Parts ----

// Whether a part has had its time and enough has happened in it, for which a busy machine may take longer.
bool IsOver(Clock::time_point end, bool enough)
{
    const auto now = Clock::now();
    return now >= end && (enough || now >= end + kLonger);
}

// Create, traffic, destroy, and again; the client likewise.
int RunLifeCycles(std::chrono::milliseconds time)
{
    uint64_t rounds = 0;
    {
        const Loop raw1(BeRawWorker);
        const Loop raw2(BeRawWorker);
        const Loop user(UseServer);
        const Loop client1(UseClient);
        const Loop client2(UseClient);
        const Loop waiter(WaitForShutdown);
        const Loop clientDestroyer([](std::mt19937&) {
            std::this_thread::sleep_for(3ms);  // the pace of its lives
            PpcClient::GetInstance()->Destroy();
        });
        for (const auto end = Clock::now() + time; !IsOver(end, rounds >= 10 && handled >= 10); ++rounds) {
            if (!gaktest::StartServer(&HandleMessage)) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(rounds * 997 % 10000));  // lives of many lengths
            PpcServer::GetInstance().Destroy();
        }
        stop = true;
    }
    printf("life cycles: %llu, messages handled: %llu\n", static_cast<unsigned long long>(rounds),
           static_cast<unsigned long long>(handled));
    return rounds >= 10 && handled >= 10 ? 0 : 1;
}

// Peers come and go faster than the server can take notice.
int RunStorm(std::chrono::milliseconds time)
{
    if (!gaktest::StartServer(&HandleMessage)) {
        return 2;
    }
    std::atomic<uint64_t> closes{0};
    {
        const Loop raw1(BeRawWorker);
        const Loop raw2(BeRawWorker);
        const Loop closer([&](std::mt19937&) {
            const Fd worker = gaktest::RawConnect(kServerId);
            closes += worker.valid() ? 1 : 0;
        });
        const Loop user1(UseServer);
        const Loop user2(UseServer);
        const auto end = Clock::now() + time;
        while (!IsOver(end, closes >= 100 && handled >= 100)) {
            std::this_thread::sleep_for(5ms);
        }
        stop = true;
    }
    PpcServer::GetInstance().Destroy();
    printf("sessions of the storm: %llu, messages handled: %llu\n", static_cast<unsigned long long>(closes),
           static_cast<unsigned long long>(handled));
    return closes >= 100 && handled >= 100 ? 0 : 1;
}

// A process that is daemon and worker at once and exits while its threads are inside every call.
int ExitInTheMiddle(uint32_t seed)
{
    if (!gaktest::StartServer(&HandleMessage)) {
        return 2;
    }
    for (void (*body)(std::mt19937&) : {&BeRawWorker, &UseServer, &UseClient, &WaitForShutdown}) {
        std::thread([body, seed] {
            std::mt19937 random(seed);
            for (;;) {
                body(random);
            }
        }).detach();
    }
    std::thread([] {
        while (GakHeartbeatSend(0, kCompute) != 0) {
        }
        for (;;) {
            CreateOrFindCustPid(0, nullptr, 1);
        }
    }).detach();
    std::this_thread::sleep_for(std::chrono::microseconds(seed * 997 % 20000));  // in the middle of what, chance says
    exit(0);
}

int RunExits(std::chrono::milliseconds time)
{
    uint32_t exits = 0;
    for (const auto end = Clock::now() + time; !IsOver(end, exits >= 5); ++exits) {
        gaktest::ChildProcess process([&]() -> int { return ExitInTheMiddle(exits); });
        const gaktest::ExitStatus status = process.WaitExit(20s);
        if (!status.ExitedWith(0)) {
            fprintf(stderr, "exit %u: ended %d, code %d, signal %d\n", exits, status.ended, status.code, status.signal);
            return 1;
        }
    }
    printf("exits: %u\n", exits);
    return exits >= 5 ? 0 : 1;
}

bool RunPart(const char* name, int (*part)(std::chrono::milliseconds), std::chrono::milliseconds time)
{
    gaktest::ChildProcess process([&] { return part(time); });
    const gaktest::ExitStatus status = process.WaitExit(time + 60s);
    if (!status.ExitedWith(0)) {
        fprintf(stderr, "%s: ended %d, code %d, signal %d\n", name, status.ended, status.code, status.signal);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    const int seconds = argc == 2 ? static_cast<int>(strtol(argv[1], nullptr, 10)) : 0;
    if (seconds <= 0) {
        fprintf(stderr, "usage: stress_program SECONDS\n");
        return 2;
    }
    const gaktest::SilentLog silent;
    const std::chrono::milliseconds third(seconds * 1000 / 3);
    if (ppcInit() != 0) {
        return 1;
    }
    return RunPart("life cycles", &RunLifeCycles, third) && RunPart("storm", &RunStorm, third) &&
                   RunPart("exits", &RunExits, third)
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}
