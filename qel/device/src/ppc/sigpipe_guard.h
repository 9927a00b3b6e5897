#ifndef GAKPPC_SIGPIPE_GUARD_H
#define GAKPPC_SIGPIPE_GUARD_H

#include <csignal>

namespace ppc {

// Keeps SIGPIPE away from the calling thread for the length of a scope: a write to a closed peer is reported as a value
// and neither kills the process nor touches its signal dispositions. The thread's mask and pending set are afterwards
// as they were before.
class SigpipeGuard {
public:
    SigpipeGuard();
    ~SigpipeGuard();
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    // Takes the SIGPIPE back that a write raised in this scope. Keeps errno.
    void Consume();

private:
    bool unblockAtEnd_ = false;
    bool wasPending_ = false;
};

// Tells this thread's guards that SIGPIPE is blocked for its whole life, which saves them two system calls each. For
// threads that the library starts.
void SigpipeStaysBlockedOnThisThread();

}  // namespace ppc

#endif
