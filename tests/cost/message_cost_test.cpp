// What one message costs apart from time. These numbers are a promise: a call, an allocation or a level check of the
// log that is added to the path of a message fails here. Where one of them must change, change it here and in
// docs/performance.md.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <ostream>

#include "gak.h"
#include "gak_limits.h"
#include "ppc.h"
#include "ppc_client.h"
#include "ppc_server.h"
#include "process.h"
#include "raw_peer.h"
#include "status_table.h"
#include "syscall_counter.h"
#include "vlog.h"

namespace {

using namespace std::chrono_literals;
using gaktest::Fd;

constexpr int kInfo = 1;
constexpr int kWarn = 2;

// What this process has done so far.
std::atomic<uint64_t> allocations{0};
std::atomic<uint64_t> questions{0};  // CheckLogLevel
std::atomic<uint64_t> lines{0};
std::atomic<int> sinkLevel{kWarn};

}  // namespace

// These replace the C library's and the logging library's, for all that the process has loaded.

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size)
{
    ++allocations;
    return __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    ++allocations;
    return __libc_memalign(alignment, size);
}

int CheckLogLevel(int, int level)
{
    ++questions;
    return level >= sinkLevel ? 1 : 0;
}

int vlog_getlevel(int, int* enableEvent)
{
    *enableEvent = 1;
    return sinkLevel;
}

void VlogInfoInner(int, const char*, ...)
{
    ++lines;
}

void VlogWarnInner(int, const char*, ...)
{
    ++lines;
}

void VlogErrorInner(int, const char*, ...)
{
    ++lines;
}

void VlogEventInner(int, const char*, ...)
{
    ++lines;
}
}

namespace {

constexpr uint32_t kDevice = 0;
constexpr GakWaitType kCompute = 1;
constexpr uint32_t kHeartbeatsBefore = 10;  // sessions, tables and caches are as they stay
constexpr uint32_t kHeartbeats = 100;
constexpr unsigned long kWorkerMark = 1;
constexpr unsigned long kDaemonMark = 2;

struct Counts {
    uint64_t allocations;
    uint64_t questions;
    uint64_t lines;
};

bool operator==(const Counts& left, const Counts& right)
{
    return left.allocations == right.allocations && left.questions == right.questions && left.lines == right.lines;
}

std::ostream& operator<<(std::ostream& out, const Counts& counts)
{
    return out << counts.allocations << " allocations, " << counts.questions << " questions, " << counts.lines
               << " lines";
}

Counts CountsNow()
{
    return {allocations, questions, lines};
}

Counts PerHeartbeat(const Counts& before, const Counts& after)
{
    // Not a multiple of the number of heartbeats: something is done now and then.
    EXPECT_EQ((after.allocations - before.allocations) % kHeartbeats, 0U);
    EXPECT_EQ((after.questions - before.questions) % kHeartbeats, 0U);
    EXPECT_EQ((after.lines - before.lines) % kHeartbeats, 0U);
    return {(after.allocations - before.allocations) / kHeartbeats, (after.questions - before.questions) / kHeartbeats,
            (after.lines - before.lines) / kHeartbeats};
}

// What the two processes leave behind for the test.
struct Results {
    Counts worker;
    Counts daemon;
};

enum class Answers { kNo, kYes };

// A daemon and a worker that sends it heartbeats.
class Conversation {
public:
    explicit Conversation(Answers answers = Answers::kNo)
        : answers_(answers),
          results_(static_cast<Results*>(
              mmap(nullptr, sizeof(Results), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(pipe(fds), 0);
        listening_ = Fd(fds[0]);
        nowListens_ = Fd(fds[1]);
        EXPECT_EQ(pipe(fds), 0);
        allHandled_ = Fd(fds[0]);
        nowHandled_ = Fd(fds[1]);
        current_ = this;
    }
    ~Conversation() { munmap(results_, sizeof(Results)); }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    int RunDaemon()
    {
        qel::PpcServer& server = qel::PpcServer::GetInstance();
        server.RegPPCSerMsgProcFunc(qel::PPCMessage::HEARTBEAT,
                                    [](const qel::PPCMessage& msg) { current_->Handle(msg); });
        if (ppcInit() != PPC_OK || server.CreateServer(qel::kPpcServerId) != qel::kStatusOk) {
            return EXIT_FAILURE;
        }
        char byte = 0;
        if (write(nowListens_.get(), &byte, 1) != 1 || read(allHandled_.get(), &byte, 1) != 1) {
            return EXIT_FAILURE;
        }
        server.Destroy();
        return EXIT_SUCCESS;
    }

    int RunWorker()
    {
        char byte = 0;
        if (ppcInit() != PPC_OK || read(listening_.get(), &byte, 1) != 1 || !Send(kHeartbeatsBefore)) {
            return EXIT_FAILURE;
        }
        gaktest::MarkForCounter(kWorkerMark);
        const Counts before = CountsNow();
        if (!Send(kHeartbeats)) {
            return EXIT_FAILURE;
        }
        const Counts after = CountsNow();
        gaktest::MarkForCounter(kWorkerMark);
        results_->worker = PerHeartbeat(before, after);
        return testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
    }

    const Results& results() const { return *results_; }

private:
    bool Send(uint32_t count) const
    {
        for (uint32_t i = 0; i < count; ++i) {
            if (GakHeartbeatSend(kDevice, kCompute) != 0 || (answers_ == Answers::kYes && !Receive())) {
                return false;
            }
        }
        return true;
    }

    static bool Receive()
    {
        qel::PpcClient& client = *qel::PpcClient::GetInstance();
        qel::PPCMessage answer;
        return client.RecvMsg(client.GetPpcSession(kDevice, qel::PPCMessage::COMPUTE), answer) == qel::kStatusOk;
    }

    static void Answer(const qel::PPCMessage& heartbeat)
    {
        qel::PPCMessage answer;
        answer.set_dest_id(heartbeat.src_id());
        answer.set_sub_proc_pid(heartbeat.sub_proc_pid());
        EXPECT_EQ(qel::PpcServer::GetInstance().SendData(answer), qel::kStatusOk);
    }

    // In the daemon, for each heartbeat. The same place of two rounds of the receive loop, a whole number apart.
    void Handle(const qel::PPCMessage& heartbeat)
    {
        if (answers_ == Answers::kYes) {
            Answer(heartbeat);
        }
        ++handled_;
        if (handled_ == kHeartbeatsBefore) {
            gaktest::MarkForCounter(kDaemonMark);
            before_ = CountsNow();
        } else if (handled_ == kHeartbeatsBefore + kHeartbeats) {
            const Counts after = CountsNow();
            gaktest::MarkForCounter(kDaemonMark);
            results_->daemon = PerHeartbeat(before_, after);
            const char byte = 0;
            EXPECT_EQ(write(nowHandled_.get(), &byte, 1), 1);
        }
    }

    static Conversation* current_;

    const Answers answers_;
    Results* const results_;
    Fd listening_;
    Fd nowListens_;
    Fd allHandled_;
    Fd nowHandled_;
    uint32_t handled_ = 0;
    Counts before_ = {};
};

Conversation* Conversation::current_ = nullptr;

Results CountAtLevel(int level)
{
    sinkLevel = level;
    Conversation conversation;
    gaktest::ChildProcess daemon([&] { return conversation.RunDaemon(); });
    gaktest::ChildProcess worker([&] { return conversation.RunWorker(); });
    EXPECT_TRUE(worker.WaitExit(30s).ExitedWith(0)) << worker.WaitExit(0s);
    EXPECT_TRUE(daemon.WaitExit(30s).ExitedWith(0)) << daemon.WaitExit(0s);
    return conversation.results();
}

// The payload and the descriptor of the message.
constexpr uint64_t kAllocations = 2;
constexpr uint64_t kWorkerLines = 5;
constexpr uint64_t kDaemonLines = 4;
// One line of each side has a status number, by which the library drops it without asking.
constexpr uint64_t kDroppedByStatus = 1;

TEST(MessageCost, UnloggedHeartbeatChecksEachLevelOnceAndWritesNothing)
{
    const Results results = CountAtLevel(kWarn);
    EXPECT_EQ(results.worker, (Counts{kAllocations, kWorkerLines - kDroppedByStatus, 0}));
    EXPECT_EQ(results.daemon, (Counts{kAllocations, kDaemonLines - kDroppedByStatus, 0}));
}

TEST(MessageCost, LoggedHeartbeatChecksEachLevelOnceAndAllocatesNothing)
{
    const Results results = CountAtLevel(kInfo);
    EXPECT_EQ(results.worker, (Counts{kAllocations, kWorkerLines, kWorkerLines}));
    EXPECT_EQ(results.daemon, (Counts{kAllocations, kDaemonLines, kDaemonLines}));
}

// Runs a conversation and compares the system calls of one heartbeat, and of its answer if there is one.
void ExpectSystemCalls(Answers answers, uint64_t ofWorker, uint64_t ofDaemon)
{
#ifdef GAKPPC_EMULATED
    GTEST_SKIP() << "the emulator cannot watch a process";
#endif
    Conversation conversation(answers);
    gaktest::SyscallCounter counter;
    counter.Fork([&] { return conversation.RunDaemon(); });
    counter.Fork([&] { return conversation.RunWorker(); });
    ASSERT_TRUE(counter.CountAll());
    EXPECT_EQ(counter.Between(kWorkerMark), ofWorker * kHeartbeats);
    EXPECT_EQ(counter.Between(kDaemonMark), ofDaemon * kHeartbeats);
}

// Worker: SIGPIPE blocked, writev, SIGPIPE unblocked. Daemon: the peek, the length, the payload.
TEST(MessageCost, AHeartbeatTakesThreeSystemCallsOnEachSide)
{
    ExpectSystemCalls(Answers::kNo, 3, 3);
}

// The daemon's threads block SIGPIPE, which is made sure of once more before its writev: a handler may have changed it.
TEST(MessageCost, AnAnsweredHeartbeatTakesElevenSystemCalls)
{
    ExpectSystemCalls(Answers::kYes, 6, 5);
}

}  // namespace
