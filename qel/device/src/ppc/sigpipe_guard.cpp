#include "sigpipe_guard.h"

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "vlog.h"

// The stand-in's own: the logging library of a host need not have it.
extern "C" void vlog_sigpipe_is_blocked(int isBlocked) __attribute__((weak));

namespace ppc {
namespace {

sigset_t SigpipeSet() noexcept
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

const sigset_t kSigpipe = SigpipeSet();

bool SigpipeIsPending()
{
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

void TellLog(bool isBlocked)
{
    if (vlog_sigpipe_is_blocked != nullptr) {
        vlog_sigpipe_is_blocked(isBlocked ? 1 : 0);
    }
}

}  // namespace

__thread bool SigpipeGuard::isBlocked = false;
__thread bool SigpipeGuard::wasPending = false;

void SigpipeGuard::Block()
{
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &kSigpipe, &previous);
    unblockAtEnd_ = sigismember(&previous, SIGPIPE) == 0;
    isOutermost_ = true;
    isBlocked = true;
    // A thread that does not block the signal has none pending.
    wasPending = !unblockAtEnd_ && SigpipeIsPending();
    TellLog(!wasPending);
}

void SigpipeGuard::Restore()
{
    TellLog(false);
    isBlocked = false;
    wasPending = false;
    if (unblockAtEnd_) {
        pthread_sigmask(SIG_UNBLOCK, &kSigpipe, nullptr);
    }
}

void SigpipeGuard::Consume()
{
    const int savedErrno = errno;
    const timespec noWait = {};
    sigtimedwait(&kSigpipe, nullptr, &noWait);  // takes the thread's own before the process's
    if (wasPending && !SigpipeIsPending()) {
        pthread_kill(pthread_self(), SIGPIPE);  // the two had merged: the caller's goes back
    }
    errno = savedErrno;
}

void SigpipeGuard::StaysBlockedOnThisThread()
{
    isBlocked = true;
    TellLog(true);
}

}  // namespace ppc
