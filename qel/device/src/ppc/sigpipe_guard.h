#ifndef GAKPPC_SIGPIPE_GUARD_H
#define GAKPPC_SIGPIPE_GUARD_H

namespace ppc {

// Keeps SIGPIPE away from the calling thread for the length of a scope: a write to a closed peer is reported as a value
// and neither kills the process nor touches its signal dispositions. The thread's mask and pending set are afterwards
// as they were before. A guard inside the scope of another one, or on a thread that StaysBlockedOnThisThread was called
// on, costs nothing; the others cost two system calls. The logging library is told, whose lines then cost less.
class SigpipeGuard {
public:
    SigpipeGuard()
    {
        if (!isBlocked) {
            Block();
        }
    }
    ~SigpipeGuard()
    {
        if (isOutermost_) {
            Restore();
        }
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    // Takes the SIGPIPE back that a write raised in this scope. Keeps errno.
    static void Consume();

    // For threads that the library starts, which block SIGPIPE for their whole lives.
    static void StaysBlockedOnThisThread();

private:
    void Block();
    void Restore();

    // Not thread_local: every use of one in another source file would first ask whether it must be initialised.
    static __thread bool isBlocked;   // by a guard, or for the thread's whole life
    static __thread bool wasPending;  // before the outermost guard

    bool isOutermost_ = false;
    bool unblockAtEnd_ = false;
};

}  // namespace ppc

#endif
