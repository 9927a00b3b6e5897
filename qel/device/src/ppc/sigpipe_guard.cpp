#include "sigpipe_guard.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

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

}  // namespace

__thread bool SigpipeGuard::staysBlocked = false;

void SigpipeGuard::Block()
{
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &kSigpipe, &previous);
    unblockAtEnd_ = sigismember(&previous, SIGPIPE) == 0;
    // A thread that does not block the signal has none pending.
    wasPending_ = !unblockAtEnd_ && SigpipeIsPending();
}

void SigpipeGuard::Unblock()
{
    pthread_sigmask(SIG_UNBLOCK, &kSigpipe, nullptr);
}

void SigpipeGuard::Consume()
{
    const int savedErrno = errno;
    const timespec noWait = {};
    sigtimedwait(&kSigpipe, nullptr, &noWait);  // takes the thread's own before the process's
    if (wasPending_ && !SigpipeIsPending()) {
        pthread_kill(pthread_self(), SIGPIPE);  // the two had merged: the caller's goes back
    }
    errno = savedErrno;
}

}  // namespace ppc
