// What a process that embeds the library may take for granted: its signals, descriptors, children and its end are its
// own. Daemons and workers are processes of their own here, forked before their process uses the library.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "gak.h"
#include "last_exit_handler.h"
#include "log_capture.h"
#include "process.h"
#include "raw_peer.h"
#include "sanitizer_options.h"
#include "sleeper.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;
using gaktest::kOk;
using gaktest::kServerId;
using gaktest::LastExitHandler;
using gaktest::LogCapture;
using gaktest::MessageTo;
using gaktest::PpcFrame;
using gaktest::RawMessage;
using gaktest::ReadPpcFrame;
using gaktest::SocketsOf;
using gaktest::SpawnSleeper;
using gaktest::StartServer;
using gaktest::WaitUntil;
using qel::PPCMessage;
using qel::PpcServer;
using testing::IsEmpty;

constexpr uint32_t kCreateFail = 0x1093031;
constexpr GakWaitType kZolt = 0;
constexpr GakWaitType kCompute = 1;
constexpr auto kWait = 20s;

// One T that this process and its children see.
template <typename T>
class Shared {
public:
    Shared()
        : memory_(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
          object_(new (memory_) T{})
    {
    }
    ~Shared() { munmap(memory_, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    T* operator->() { return object_; }
    T& operator*() { return *object_; }

private:
    void* memory_;
    T* object_;
};

// Lets a process wait for another one, and notice its death.
class Gate {
public:
    Gate() : ends_(gaktest::SocketPair()) {}
    void Open() { EXPECT_EQ(write(ends_.first.get(), "g", 1), 1); }
    // False when the deadline came first.
    bool Pass()
    {
        char byte = 0;
        return gaktest::WaitReadable(ends_.second, kWait) && read(ends_.second.get(), &byte, 1) == 1;
    }

private:
    std::pair<Fd, Fd> ends_;
};

[[noreturn]] void PauseForever()
{
    for (;;) {
        pause();
    }
}

// ---- Signals ----

std::vector<int> Members(const sigset_t& set)
{
    std::vector<int> members;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&set, signal) == 1) {
            members.push_back(signal);
        }
    }
    return members;
}

// What a thread can see of signal handling.
struct SignalState {
    SignalState()
    {
        sigset_t set;
        pthread_sigmask(SIG_BLOCK, nullptr, &set);
        mask = Members(set);
        sigpending(&set);
        pending = Members(set);
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action = {};
            sigaction(signal, nullptr, &action);
            handlers.push_back(reinterpret_cast<uintptr_t>(action.sa_handler));
        }
    }
    bool operator==(const SignalState& other) const
    {
        return mask == other.mask && pending == other.pending && handlers == other.handlers;
    }

    std::vector<int> mask;
    std::vector<int> pending;
    std::vector<uintptr_t> handlers;
};

std::ostream& operator<<(std::ostream& out, const SignalState& state)
{
    return out << "mask " << testing::PrintToString(state.mask) << " pending " << testing::PrintToString(state.pending)
               << " handlers " << testing::PrintToString(state.handlers);
}

void SendHeartbeatsToADeadDaemon()
{
    LogCapture log;
    ASSERT_EQ(ppcInit(), 0);
    Gate ready;
    ChildProcess daemon([&]() -> int {
        if (StartServer()) {
            ready.Open();
            PauseForever();
        }
        return 1;
    });
    ASSERT_TRUE(ready.Pass());
    ASSERT_EQ(GakHeartbeatSend(0, kZolt), 0u);
    daemon.Kill(SIGKILL);
    ASSERT_TRUE(daemon.WaitExit(kWait).KilledBy(SIGKILL));

    const SignalState before;
    int failures = 0;
    for (int beat = 0; beat < 1000; ++beat) {
        failures += GakHeartbeatSend(0, kZolt) == kCreateFail ? 1 : 0;
    }
    EXPECT_EQ(failures, 1000);
    EXPECT_EQ(log.Count("[GAKPPCCLI] Send heartbeat fail device[0]"), 1000u);
    EXPECT_EQ(SignalState(), before);
}

TEST(SignalHygieneTest, HeartbeatsToADeadDaemonFailWithoutSigpipe)
{
    signal(SIGPIPE, SIG_DFL);
    SendHeartbeatsToADeadDaemon();
}

TEST(SignalHygieneTest, HeartbeatsToADeadDaemonKeepAPendingSigpipe)
{
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    SendHeartbeatsToADeadDaemon();
    EXPECT_EQ(SignalState().pending, std::vector<int>{SIGPIPE});
}

std::atomic<uint64_t>* ticks = nullptr;

// A signal 1,000 times a second that interrupts system calls, counted in `counter`. Not inherited by children.
void StartTimer(std::atomic<uint64_t>& counter)
{
    ticks = &counter;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++*ticks; };
    sigaction(SIGALRM, &action, nullptr);  // without SA_RESTART
    const itimerval kilohertz = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &kilohertz, nullptr);
}

// The kernel gives the timer's signals to one thread; a thread that waits inside the library gets some of its own.
void Interrupt(pthread_t thread, const std::atomic<bool>& stop)
{
    while (!stop) {
        pthread_kill(thread, SIGALRM);
        poll(nullptr, 0, 1);  // the pace of the signals
    }
}

struct Traffic {
    std::atomic<uint64_t> daemonTicks{0};
    std::atomic<uint64_t> workerTicks{0};
    std::atomic<uint64_t> heartbeats{0};
    std::atomic<uint64_t> failedAnswers{0};
    std::atomic<bool> started{false};
};
Traffic* traffic = nullptr;

// Answers every heartbeat.
int RunInterruptedDaemon(Gate& ready, Gate& finish, pid_t worker)
{
    static uint32_t workerPid;
    workerPid = static_cast<uint32_t>(worker);
    PpcServer& server = PpcServer::GetInstance();
    server.RegPPCSerMsgProcFunc(PPCMessage::START_RSP, [](const PPCMessage&) { traffic->started = true; });
    server.RegPPCSerMsgProcFunc(PPCMessage::HEARTBEAT, [](const PPCMessage&) {
        const PPCMessage answer = MessageTo(0, workerPid, PPCMessage::HEARTBEAT);
        traffic->failedAnswers += PpcServer::GetInstance().SendData(answer) == kOk ? 0 : 1;
        ++traffic->heartbeats;
    });
    server.RegPPCSerMsgProcFunc(PPCMessage::NOTIFY_VEXOINFO, [](const PPCMessage&) {
        PpcServer::GetInstance().SendData(MessageTo(0, workerPid, PPCMessage::START_RSP, PPCMessage::CUSTOM_COMPUTE));
    });
    StartTimer(traffic->daemonTicks);
    if (!StartServer()) {
        return 1;
    }
    ready.Open();
    if (!finish.Pass() || server.SendData(MessageTo(0, workerPid, PPCMessage::SHUTDOWN)) != kOk) {
        return 2;
    }
    PauseForever();
}

// The sender stays within what the socket takes: a send that has to wait is given up when a signal comes.
TEST(SignalHygieneTest, TimerSignalsDisturbNoTraffic)
{
    constexpr uint64_t kWindow = 32;
    Shared<Traffic> shared;
    traffic = &*shared;
    Gate ready;
    Gate finish;
    const pid_t self = getpid();
    ChildProcess daemon([&] { return RunInterruptedDaemon(ready, finish, self); });
    ASSERT_TRUE(ready.Pass());
    ASSERT_EQ(ppcInit(), 0);
    StartTimer(traffic->workerTicks);

    std::atomic<bool> stop{false};
    std::atomic<uint32_t> waited{1};
    std::thread waiter([&] { waited = GakWaitForShutdown(0, kCompute); });
    std::thread interrupter([&] { Interrupt(waiter.native_handle(), stop); });
    EXPECT_TRUE(WaitUntil([] { return traffic->started.load(); }, kWait));
    EXPECT_EQ(CreateOrFindCustPid(0, nullptr, 1), 0u);
    uint64_t sent = 0;
    uint64_t failed = 0;
    const auto enough = [&] { return sent > 1000 && traffic->workerTicks > 1000 && traffic->daemonTicks > 500; };
    for (const gaktest::Deadline deadline = kWait; !enough() && !deadline.Passed();) {
        if (sent < traffic->heartbeats + kWindow) {
            ++sent;
            failed += GakHeartbeatSend(0, kCompute) == 0 ? 0 : 1;
        }
    }
    EXPECT_TRUE(enough()) << sent << " sent, " << traffic->workerTicks << " and " << traffic->daemonTicks << " signals";
    EXPECT_EQ(failed, 0u);
    EXPECT_TRUE(WaitUntil([&] { return traffic->heartbeats == sent; }, kWait)) << traffic->heartbeats << " of " << sent;
    stop = true;
    interrupter.join();
    finish.Open();
    waiter.join();
    EXPECT_EQ(waited, 0u);
    EXPECT_EQ(traffic->failedAnswers, 0u);
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
}

// Bits of a line of /proc/self/task/<id>/status such as "SigBlk:", of the threads with that name.
std::vector<uint64_t> BlockedSignalsOf(const std::string& threadName)
{
    std::vector<uint64_t> masks;
    for (const std::string& id : gaktest::ThreadIds(threadName)) {
        std::ifstream status("/proc/self/task/" + id + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:\t", 0) == 0) {
                masks.push_back(std::stoull(line.substr(8), nullptr, 16));
            }
        }
    }
    return masks;
}

TEST(SignalHygieneTest, ThreadsOfTheServerBlockAsynchronousSignals)
{
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR2);
    sigaddset(&own, SIGRTMAX);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    const SignalState before;
    ASSERT_TRUE(StartServer());
    const Fd worker = gaktest::RawConnect(kServerId);
    ASSERT_TRUE(WaitUntil([] { return BlockedSignalsOf("ppc_srv_recv").size() == 1; }, kWait));
    EXPECT_EQ(SignalState(), before);

    std::vector<uint64_t> masks = BlockedSignalsOf("ppc_srv_accept");
    ASSERT_EQ(masks.size(), 1u);
    masks.push_back(BlockedSignalsOf("ppc_srv_recv").front());
    // Raised by an instruction of the thread itself, not to be blocked by the system, or the threads library's own.
    std::vector<int> exempt = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGKILL, SIGSTOP, 32, 33};
    if (gaktest::kUnderEmulator) {
        // The emulator's own threads library has these two; the machine sees those of the emulated one after them.
        exempt.insert(exempt.end(), {34, 35});
    }
    for (const uint64_t mask : masks) {
        for (int signal = 1; signal < NSIG; ++signal) {
            if (std::find(exempt.begin(), exempt.end(), signal) == exempt.end()) {
                EXPECT_TRUE((mask >> (signal - 1)) & 1) << "signal " << signal << " is not blocked";
            }
        }
    }
    PpcServer::GetInstance().Destroy();
    EXPECT_EQ(SignalState(), before);
}

// ---- Children ----

pid_t ForkSleeper()
{
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sleep", "sleep", "1000", nullptr);
        _exit(127);
    }
    return pid;
}

bool IsAlive(pid_t pid)
{
    return kill(pid, 0) == 0;
}

// Programs that outlive the process that started them become children of this one, so that they can be waited for.
class Sleepers {
public:
    Sleepers() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~Sleepers()
    {
        for (const pid_t pid : *pids_) {
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;

    // Both ways to start a program. Called in the process that is to die.
    void Start() { *pids_ = {SpawnSleeper(), ForkSleeper()}; }
    const std::array<pid_t, 2>& Pids() { return *pids_; }

    // Whether they have become the programs they are meant to be: only then does close-on-exec count.
    bool HaveBeenExecuted() { return std::all_of(pids_->begin(), pids_->end(), gaktest::BecomesSleeper); }

private:
    Shared<std::array<pid_t, 2>> pids_;
};

TEST(ChildHygieneTest, ExecutedChildrenInheritNoSocketAndWaitsEndWithTheDaemon)
{
    Sleepers sleepers;
    Gate ready;
    Gate start;
    Gate started;
    Shared<std::atomic<int>> workersSeen;
    static std::atomic<int>* seen = nullptr;
    seen = &*workersSeen;
    ChildProcess daemon([&]() -> int {
        PpcServer::GetInstance().RegPPCSerMsgProcFunc(PPCMessage::START_RSP, [](const PPCMessage&) { ++*seen; });
        if (!StartServer()) {
            return 1;
        }
        ready.Open();
        start.Pass();
        sleepers.Start();
        started.Open();
        PauseForever();
    });
    ASSERT_TRUE(ready.Pass());
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (uint32_t device = 0; device < 4; ++device) {
        workers.push_back(std::make_unique<ChildProcess>([device] {
            ppcInit();
            return GakWaitForShutdown(device, kCompute) == kCreateFail ? 0 : 1;
        }));
    }
    ASSERT_TRUE(WaitUntil([] { return *seen == 4; }, kWait));
    EXPECT_GE(SocketsOf(daemon.pid()).size(), 5u) << "the listening one and four sessions";
    start.Open();
    ASSERT_TRUE(started.Pass());
    ASSERT_TRUE(sleepers.HaveBeenExecuted());
    for (const pid_t pid : sleepers.Pids()) {
        EXPECT_THAT(SocketsOf(pid), IsEmpty());
    }

    daemon.Kill(SIGKILL);
    for (const auto& worker : workers) {
        EXPECT_TRUE(worker->WaitExit(kWait).ExitedWith(0)) << worker->WaitExit(0s);
    }
    for (const pid_t pid : sleepers.Pids()) {
        EXPECT_TRUE(IsAlive(pid));
    }
}

TEST(ChildHygieneTest, DaemonNoticesAKilledWorkerAlthoughItsChildrenLiveOn)
{
    static std::atomic<bool> heard{false};
    static std::atomic<bool> closed{false};
    Sleepers sleepers;
    Gate ready;
    Gate started;
    ChildProcess worker([&]() -> int {
        ppcInit();
        ready.Pass();
        GakHeartbeatSend(0, kZolt);
        sleepers.Start();
        started.Open();
        PauseForever();
    });
    PpcServer& server = PpcServer::GetInstance();
    server.RegPPCSerMsgProcFunc(PPCMessage::HEARTBEAT, [](const PPCMessage&) { heard = true; });
    server.RegPPCSerMsgProcFunc(PPCMessage::SOCKET_CLOSE, [](const PPCMessage&) { closed = true; });
    ASSERT_TRUE(StartServer());
    ready.Open();
    ASSERT_TRUE(started.Pass());
    ASSERT_TRUE(sleepers.HaveBeenExecuted());
    ASSERT_TRUE(WaitUntil([] { return heard.load(); }, kWait));
    for (const pid_t pid : sleepers.Pids()) {
        EXPECT_THAT(SocketsOf(pid), IsEmpty());
    }
    worker.Kill(SIGKILL);
    EXPECT_TRUE(WaitUntil([] { return closed.load(); }, kWait));
    server.Destroy();
}

// A process that is a daemon and a worker at once, with threads inside both halves, forks again and again.
TEST(ChildHygieneTest, ForkedChildrenThatExitDisturbNoSession)
{
    static std::atomic<uint64_t> received{0};
    PpcServer& server = PpcServer::GetInstance();
    server.RegPPCSerMsgProcFunc(PPCMessage::HEARTBEAT, [](const PPCMessage&) { ++received; });
    ASSERT_TRUE(StartServer());
    const Fd raw = gaktest::RawConnect(kServerId);
    ASSERT_TRUE(gaktest::WriteAll(raw, PpcFrame({2, 1, kServerId, 0, 7, 0, {}})));
    ASSERT_TRUE(WaitUntil([] { return received == 1; }, kWait));

    std::atomic<bool> stop{false};
    std::atomic<uint64_t> sent{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<uint32_t> waited{1};
    std::thread waiter([&] { waited = GakWaitForShutdown(0, kCompute); });
    std::thread beats([&] {
        while (!stop) {
            failed += GakHeartbeatSend(0, kCompute) == 0 ? 0 : 1;
            ++sent;
        }
    });
    ASSERT_TRUE(WaitUntil([] { return received > 1; }, kWait));
    for (int round = 0; round < 30; ++round) {
        ChildProcess child([]() -> int {
            LastExitHandler::code = 3;
            exit(1);
        });
        const gaktest::ExitStatus status = child.WaitExit(1s);
        ASSERT_TRUE(status.ExitedWith(3)) << status << " in round " << round;
    }
    stop = true;
    beats.join();
    EXPECT_EQ(failed, 0u);
    EXPECT_TRUE(WaitUntil([&] { return received == sent + 1; }, kWait)) << received << " of " << sent + 1;
    EXPECT_EQ(server.SendData(MessageTo(1, 7, PPCMessage::SHUTDOWN)), kOk);
    EXPECT_EQ(ReadPpcFrame(raw, kWait), (RawMessage{5, 0, 1, 0, 7, 0, {}}));
    const Fd another = gaktest::RawConnect(kServerId);
    ASSERT_TRUE(gaktest::WriteAll(another, PpcFrame({2, 1, kServerId, 0, 8, 0, {}})));
    EXPECT_TRUE(WaitUntil([&] { return received == sent + 2; }, kWait));
    EXPECT_EQ(server.SendData(MessageTo(0, static_cast<uint32_t>(getpid()), PPCMessage::SHUTDOWN)), kOk);
    waiter.join();
    EXPECT_EQ(waited, 0u);
    server.Destroy();
}

// ---- The end of the process ----

// A worker whose main function returns while its threads are inside every call.
[[noreturn]] void ExitInsideEveryCall(Gate& go)
{
    ppcInit();
    std::thread([] { GakWaitForShutdown(0, kCompute); }).detach();
    std::thread([] {
        for (;;) {
            GakHeartbeatSend(0, kCompute);
        }
    }).detach();
    // Before the first message of this process the call has no device to name.
    std::thread([] {
        for (;;) {
            CreateOrFindCustPid(0, nullptr, 1);
        }
    }).detach();
    go.Pass();
    exit(5);
}

// Reads messages of the worker until one of every call has come; then tells it to exit and reads on to the end.
void ServeUntilItExits(const Fd& connection, Gate& go)
{
    std::array<bool, 5> heard{};
    while (!(heard[0] && heard[2] && heard[3])) {
        const std::optional<RawMessage> message = ReadPpcFrame(connection, kWait);
        ASSERT_TRUE(message.has_value());
        ASSERT_LT(message->type, heard.size());
        heard[message->type] = true;
    }
    go.Open();
    std::array<char, 4096> rest{};
    while (recv(connection.get(), rest.data(), rest.size(), 0) > 0) {
    }
}

TEST(ExitHygieneTest, ExitWithThreadsInEveryCallIsCleanAThousandTimes)
{
    // The threads' errors on the way out are their right, but not wanted on the screen.
    LogCapture log;
    const Fd listener = gaktest::RawListen(kServerId, 100);
    for (int round = 0; round < 1000; ++round) {
        Gate go;
        ChildProcess worker([&]() -> int { ExitInsideEveryCall(go); });
        const Fd connection = gaktest::RawAccept(listener, kWait);
        ASSERT_NO_FATAL_FAILURE(ServeUntilItExits(connection, go)) << "round " << round;
        const gaktest::ExitStatus status = worker.WaitExit(kWait);
        ASSERT_TRUE(status.ExitedWith(5)) << status << " in round " << round;
        // A heartbeat behind the tear-down opens a session of its own.
        while (gaktest::RawAccept(listener, 0s).valid()) {
        }
    }
}

}  // namespace
