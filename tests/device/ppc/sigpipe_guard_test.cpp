// What a message leaves behind of SIGPIPE, seen from outside: the daemon has gone, and the log goes to a pipe that
// nobody reads, so that the frame and every line about it raise the signal.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>

#include "gak.h"
#include "ppc.h"
#include "ppc_server.h"
#include "process.h"
#include "raw_peer.h"
#include "vlog.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;

constexpr int kServerId = 19280;
constexpr uint32_t kOk = 0x1011000;
constexpr uint32_t kFailed = 0x1093031;
constexpr uint32_t kSendFailed = 0x1093037;
constexpr int kInfo = 1;

volatile sig_atomic_t delivered = 0;

void CountSignal(int)
{
    ++delivered;
}

sigset_t OnlySigpipe()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool IsBlocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

bool IsPending()
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

void SetBlocked(bool isBlocked)
{
    const sigset_t sigpipe = OnlySigpipe();
    pthread_sigmask(isBlocked ? SIG_BLOCK : SIG_UNBLOCK, &sigpipe, nullptr);
}

// Three heartbeats to a daemon that has gone, every line of them written. True when all failed as they should.
bool SendIntoTheVoid()
{
    bool asExpected = true;
    for (int i = 0; i < 3; ++i) {
        asExpected = GakHeartbeatSend(0, 1) == kFailed && asExpected;
    }
    return asExpected;
}

// Runs `body` in a process whose worker side has a session to a daemon that has gone and whose log is broken. The
// result is the body's.
int WithBrokenPipes(const std::function<int()>& body)
{
    if (ppcInit() != 0) {
        return 10;
    }
    Fd listener = gaktest::RawListen(kServerId);
    if (GakHeartbeatSend(0, 1) != 0) {
        return 11;
    }
    listener.Reset();  // with the connection that waits in its queue
    vlog_setlevel(kInfo);
    return gaktest::BreakStandardError() ? body() : 12;
}

testing::AssertionResult EndsWellWithBrokenPipes(const std::function<int()>& body)
{
    ChildProcess child([&] { return WithBrokenPipes(body); });
    const gaktest::ExitStatus status = child.WaitExit(20s);
    return status.ExitedWith(0) ? testing::AssertionSuccess() : testing::AssertionFailure() << status;
}

TEST(SigpipeGuardTest, ProcessLivesAndHasNoSignalLeft)
{
    EXPECT_TRUE(EndsWellWithBrokenPipes([] {
        signal(SIGPIPE, SIG_DFL);
        return SendIntoTheVoid() && !IsBlocked() && !IsPending() ? 0 : 1;
    }));
}

TEST(SigpipeGuardTest, BlockedSignalStaysBlockedAndIsNotLeftPending)
{
    EXPECT_TRUE(EndsWellWithBrokenPipes([] {
        SetBlocked(true);
        return SendIntoTheVoid() && IsBlocked() && !IsPending() ? 0 : 1;
    }));
}

TEST(SigpipeGuardTest, SignalThatWasPendingIsDeliveredOnce)
{
    EXPECT_TRUE(EndsWellWithBrokenPipes([] {
        signal(SIGPIPE, &CountSignal);
        SetBlocked(true);
        raise(SIGPIPE);
        const bool asExpected = SendIntoTheVoid() && IsBlocked() && IsPending() && delivered == 0;
        SetBlocked(false);
        return asExpected && delivered == 1 ? 0 : 1;
    }));
}

// The thread's own write to a pipe that nobody reads, which raises the same signal as a frame to nobody.
bool WriteToABrokenPipe()
{
    int ends[2];
    if (pipe(ends) != 0) {
        return false;
    }
    close(ends[0]);
    const bool failed = write(ends[1], "x", 1) == -1;
    close(ends[1]);
    return failed;
}

TEST(SigpipeGuardTest, SignalOfAnEarlierWriteOfTheThreadIsTakenAsWell)
{
    ChildProcess child([] {
        SetBlocked(true);
        if (ppcInit() != 0) {
            return 10;
        }
        Fd listener = gaktest::RawListen(kServerId);
        if (GakHeartbeatSend(0, 1) != 0) {
            return 11;
        }
        listener.Reset();
        if (!WriteToABrokenPipe() || !IsPending()) {
            return 12;
        }
        return GakHeartbeatSend(0, 1) == kFailed && IsBlocked() && !IsPending() ? 0 : 1;
    });
    const gaktest::ExitStatus status = child.WaitExit(20s);
    EXPECT_TRUE(status.ExitedWith(0)) << status;
}

std::promise<void> workerHasGone;
std::promise<uint32_t> answered;

uint32_t Answer(const qel::PPCMessage& heartbeat)
{
    qel::PPCMessage answer;
    answer.set_dest_id(heartbeat.src_id());
    answer.set_sub_proc_pid(heartbeat.sub_proc_pid());
    return qel::PpcServer::GetInstance().SendData(answer);
}

// Changes the mask of the library's thread that it is called on, between two answers.
void UnblockAndAnswer(const qel::PPCMessage& heartbeat)
{
    workerHasGone.get_future().wait_for(gaktest::Stretched(10s));
    const uint32_t first = Answer(heartbeat);
    SetBlocked(false);
    answered.set_value(Answer(heartbeat) == first ? first : kOk);
}

int AnswerAWorkerThatHasGone()
{
    signal(SIGPIPE, SIG_DFL);
    qel::PpcServer& server = qel::PpcServer::GetInstance();
    server.RegPPCSerMsgProcFunc(qel::PPCMessage::HEARTBEAT, &UnblockAndAnswer);
    if (ppcInit() != 0 || server.CreateServer(kServerId) != kOk) {
        return 10;
    }
    Fd worker = gaktest::RawConnect(kServerId);
    if (!gaktest::WriteAll(worker, gaktest::PpcFrame({qel::PPCMessage::HEARTBEAT, 0, kServerId, 0, 77, 0, {}}))) {
        return 11;
    }
    worker.Reset();
    workerHasGone.set_value();
    const bool asExpected = answered.get_future().get() == kSendFailed;
    server.Destroy();
    return asExpected ? 0 : 1;
}

TEST(SigpipeGuardTest, HandlerThatUnblocksTheSignalMaySendToAWorkerThatHasGone)
{
    ChildProcess child(&AnswerAWorkerThatHasGone);
    const gaktest::ExitStatus status = child.WaitExit(20s);
    EXPECT_TRUE(status.ExitedWith(0)) << status;
}

}  // namespace
