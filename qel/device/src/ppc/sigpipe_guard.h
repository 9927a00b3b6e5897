#ifndef GAKPPC_SIGPIPE_GUARD_H
#define GAKPPC_SIGPIPE_GUARD_H

#include <csignal>

namespace ppc {

// Keeps SIGPIPE away from the calling thread for the length of a scope: a write to a closed peer is reported as a value
// and neither kills the process nor touches its signal dispositions. The thread's mask and pending set are afterwards
// as they were before.
class SigpipeGuard {
public:
    SigpipeGuard()
    {
        if (!staysBlocked) {
            Block();
        }
    }
    ~SigpipeGuard()
    {
        if (unblockAtEnd_) {
            Unblock();
        }
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    // Takes the SIGPIPE back that a write raised in this scope. Keeps errno.
    void Consume();

    // Tells this thread's guards that SIGPIPE is blocked for its whole life, which saves them two system calls each.
    // For threads that the library starts.
    static void StaysBlockedOnThisThread() { staysBlocked = true; }

private:
    void Block();
    void Unblock();

    // Not thread_local: every use of one in another source file would first ask whether it must be initialised.
    static __thread bool staysBlocked;

    bool unblockAtEnd_ = false;
    bool wasPending_ = false;
};

}  // namespace ppc

#endif
