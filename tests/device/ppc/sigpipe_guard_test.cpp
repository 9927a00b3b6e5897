// What a message leaves behind of SIGPIPE, seen from outside: the daemon has gone, and the log goes to a pipe that
// nobody reads, so that the frame and every line about it raise the signal.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "gak.h"
#include "ppc.h"
#include "process.h"
#include "raw_peer.h"
#include "vlog.h"

namespace {

using namespace std::chrono_literals;
using gaktest::ChildProcess;
using gaktest::Fd;

constexpr int kServerId = 19280;
constexpr uint32_t kFailed = 0x1093031;
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

// What the library told the logging library about its thread must not outlast the call.
TEST(SigpipeGuardTest, LinesAfterTheMessageAreWrittenWithCareAgain)
{
    EXPECT_TRUE(EndsWellWithBrokenPipes([] {
        signal(SIGPIPE, SIG_DFL);
        const bool asExpected = SendIntoTheVoid();
        VlogErrorInner(38, "on the process's own account");
        return asExpected && !IsPending() ? 0 : 1;
    }));
}

}  // namespace
