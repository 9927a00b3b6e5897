#include "sigpipe_guard.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
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

// Takes a pending SIGPIPE, the thread's own before the process's. Not sigtimedwait, which does not tell a signal that
// was sent to the thread from any other.
bool TakePending(siginfo_t* signal)
{
    constexpr size_t kKernelSetSize = (NSIG - 1) / 8;
    const timespec noWait = {};
    return syscall(SYS_rt_sigtimedwait, &kSigpipe, signal, &noWait, kKernelSetSize) == SIGPIPE;
}

// The signal of a broken pipe bears the process id of the writer, as those of kill do; but kill sends to the process.
bool IsOfAWrite(const siginfo_t& signal)
{
    return signal.si_code == SI_USER && signal.si_pid == getpid();
}

}  // namespace

SigpipeGuard::SigpipeGuard()
{
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &kSigpipe, &previous);
    wasBlocked_ = sigismember(&previous, SIGPIPE) == 1;
}

SigpipeGuard::~SigpipeGuard()
{
    if (!wasBlocked_) {
        pthread_sigmask(SIG_UNBLOCK, &kSigpipe, nullptr);
    }
}

void SigpipeGuard::Consume()
{
    const int savedErrno = errno;
    siginfo_t signal = {};
    if (TakePending(&signal) && !IsOfAWrite(signal)) {
        pthread_kill(pthread_self(), SIGPIPE);  // the thread had it pending before, and the write's merged with it
    }
    errno = savedErrno;
}

}  // namespace ppc
