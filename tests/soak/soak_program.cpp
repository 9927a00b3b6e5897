// A daemon under the ordinary wear of a device's life, for a given time: soak_program SECONDS
//
// In each round 64 worker processes connect, talk and end; every second one is killed. After a few rounds the daemon's
// descriptors and threads must be back at the baseline, it is destroyed and created again (its session table keeps
// every worker until then), and what is resident must not have grown.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "gak.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"
#include "silent_log.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;
using gaktest::WaitUntil;
using qel::PPCMessage;
using qel::PpcServer;

constexpr GakWaitType kCompute = 1;
constexpr size_t kWorkers = 64;
constexpr int kRoundsInACycle = 4;
constexpr size_t kSessionsRemembered = 4096;  // the driver recognises so many ended sessions
constexpr long kAllowedGrowthKiB = 1024;
constexpr auto kWait = 20s;

// Workers of these devices talk until they are killed; those of the others are told to end.
bool IsVictim(uint32_t device)
{
    return device % 2 != 0;
}

// ---- Workers ----

int RunWorker(uint32_t device)
{
    if (ppcInit() != 0) {
        return 1;
    }
    uint32_t waited = 1;
    std::thread waiter([&] { waited = GakWaitForShutdown(device, kCompute); });
    if (IsVictim(device)) {
        for (;;) {
            GakHeartbeatSend(device, kCompute);
        }
    }
    for (int beat = 0; beat < 5; ++beat) {
        if (GakHeartbeatSend(device, kCompute) != 0) {
            return 2;
        }
    }
    if (CreateOrFindCustPid(0, nullptr, 1) != 0 || GakDestory(device, kCompute) != 0) {
        return 3;  // the abnormal report is what the daemon answers with the order to end
    }
    waiter.join();
    exit(waited == 0 ? EXIT_SUCCESS : 4);
}

// One round of workers, with what their ends must look like.
bool RunRound(std::mt19937& random)
{
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (uint32_t number = 0; number < kWorkers; ++number) {
        const uint32_t device = number % 4;
        workers.push_back(std::make_unique<ChildProcess>([device] { return RunWorker(device); }));
    }
    bool good = true;
    for (uint32_t number = 0; number < kWorkers; ++number) {
        ChildProcess& worker = *workers[number];
        if (IsVictim(number % 4)) {
            // Some before they have connected, some in the middle of a message.
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
            worker.Kill(SIGKILL);
        }
        const gaktest::ExitStatus status = worker.WaitExit(kWait);
        if (IsVictim(number % 4) ? !status.KilledBy(SIGKILL) : !status.ExitedWith(0)) {
            fprintf(stderr, "worker %u: ended %d, code %d, signal %d\n", number, status.ended, status.code,
                    status.signal);
            good = false;
        }
    }
    return good;
}

// Runs a round for every byte it reads and answers with '+' or '-'. A process of its own without a thread, because it
// forks all the time.
int RunSpawner(const Fd& orders)
{
    std::mt19937 random(4711);
    char byte = 0;
    while (read(orders.get(), &byte, 1) == 1) {
        const char answer = RunRound(random) ? '+' : '-';
        if (write(orders.get(), &answer, 1) != 1) {
            return 1;
        }
    }
    return 0;
}

// ---- The daemon ----

// Fails when the worker has been killed meanwhile.
void Answer(const PPCMessage& worker, PPCMessage::MsgType type, PPCMessage::ProcessType procType)
{
    PpcServer::GetInstance().SendData(gaktest::MessageTo(worker.src_id(), worker.sub_proc_pid(), type, procType));
}

void HandleMessage(const PPCMessage& msg)
{
    if (msg.type() == PPCMessage::NOTIFY_VEXOINFO) {
        Answer(msg, PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE);
    } else if (msg.type() == PPCMessage::ABNORMAL) {
        Answer(msg, PPCMessage::SHUTDOWN, msg.proc_type());
    }
}

// What a daemon holds of the system.
struct Resources {
    size_t descriptors = gaktest::OpenDescriptors();
    size_t threads = gaktest::ThreadCount();

    bool operator==(const Resources& other) const
    {
        return descriptors == other.descriptors && threads == other.threads;
    }
};

bool Returns(const Resources& baseline, const char* when)
{
    const bool returned = WaitUntil(
        [&] {
            PpcServer::GetInstance().JoinAllPPCRcvThreads();
            return Resources() == baseline;
        },
        kWait);
    if (!returned) {
        const Resources now;
        fprintf(stderr, "%s: %zu descriptors, %zu threads instead of %zu and %zu\n", when, now.descriptors, now.threads,
                baseline.descriptors, baseline.threads);
    }
    return returned;
}

long ResidentKiB()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Rss:", 0) == 0) {
            return std::stol(line.substr(4));
        }
    }
    return -1;
}

// Ends as many sessions as the driver remembers: from then on that memory does not grow any more.
bool FillMemoryOfEndedSessions()
{
    for (size_t number = 0; number < kSessionsRemembered; ++number) {
        if (!gaktest::RawConnect(gaktest::kServerId).valid()) {
            return false;
        }
        PpcServer::GetInstance().JoinAllPPCRcvThreads();
    }
    return true;
}

class Soak {
public:
    explicit Soak(Fd spawner) : spawner_(std::move(spawner)) {}

    bool Run(std::chrono::seconds time)
    {
        const auto end = std::chrono::steady_clock::now() + time;
        const Resources withoutServer;
        int cycles = 0;
        long baseline = 0;
        long resident = 0;
        // The first cycle only warms up.
        do {
            if (!gaktest::StartServer(&HandleMessage) || !RunCycle(cycles == 0)) {
                return false;
            }
            PpcServer::GetInstance().Destroy();
            if (!Returns(withoutServer, "after Destroy")) {
                return false;
            }
            resident = ResidentKiB();
            baseline = cycles == 0 ? resident : baseline;
            ++cycles;
        } while (std::chrono::steady_clock::now() < end || cycles < 2);
        printf("%d cycles, %d workers: %ld KiB resident at first, %ld KiB at the end\n", cycles,
               cycles * kRoundsInACycle * static_cast<int>(kWorkers), baseline, resident);
        return !gaktest::kMeasuresAreOwn || resident - baseline <= kAllowedGrowthKiB;
    }

private:
    bool RunCycle(bool first)
    {
        const Resources idle;
        if (first && !FillMemoryOfEndedSessions()) {
            return false;
        }
        for (int round = 0; round < kRoundsInACycle; ++round) {
            char answer = '\0';
            if (write(spawner_.get(), "r", 1) != 1 || read(spawner_.get(), &answer, 1) != 1 || answer != '+') {
                fprintf(stderr, "a round of workers failed\n");
                return false;
            }
            if (!Returns(idle, "after a round")) {
                return false;
            }
        }
        return true;
    }

    const Fd spawner_;
};

}  // namespace

int main(int argc, char** argv)
{
    const int seconds = argc == 2 ? static_cast<int>(strtol(argv[1], nullptr, 10)) : 0;
    if (seconds <= 0) {
        fprintf(stderr, "usage: soak_program SECONDS\n");
        return 2;
    }
    const gaktest::SilentLog silent;
    std::pair<Fd, Fd> ends = gaktest::SocketPair();
    ChildProcess spawner([&] {
        ends.first.Reset();
        return RunSpawner(ends.second);
    });
    ends.second.Reset();
    gaktest::PrepareForSanitizers();
    const bool good = Soak(std::move(ends.first)).Run(std::chrono::seconds(seconds));
    puts(good ? "as before" : "FAILED");
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
