#include "sigpipe_guard.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

namespace ppc {
namespace {

thread_local bool staysBlocked = false;

sigset_t SigpipeSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool SigpipeIsPending()
{
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

SigpipeGuard::SigpipeGuard()
{
    if (staysBlocked) {
        return;
    }
    const sigset_t pipe = SigpipeSet();
    sigset_t previous;
    sigemptyset(&previous);
    pthread_sigmask(SIG_BLOCK, &pipe, &previous);
    unblockAtEnd_ = sigismember(&previous, SIGPIPE) == 0;
    // A thread that does not block the signal has none pending.
    wasPending_ = !unblockAtEnd_ && SigpipeIsPending();
}

SigpipeGuard::~SigpipeGuard()
{
    if (unblockAtEnd_) {
        const sigset_t pipe = SigpipeSet();
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    }
}

void SigpipeGuard::Consume()
{
    const int savedErrno = errno;
    const sigset_t pipe = SigpipeSet();
    const timespec noWait = {};
    sigtimedwait(&pipe, nullptr, &noWait);  // takes the thread's own before the process's
    if (wasPending_ && !SigpipeIsPending()) {
        pthread_kill(pthread_self(), SIGPIPE);  // the two had merged: the caller's goes back
    }
    errno = savedErrno;
}

void SigpipeStaysBlockedOnThisThread()
{
    staysBlocked = true;
}

}  // namespace ppc
