#ifndef GAKPPC_SIGPIPE_GUARD_H
#define GAKPPC_SIGPIPE_GUARD_H

namespace ppc {

// Keeps SIGPIPE away from the calling thread for the length of a scope: a write to a closed peer is reported as a value
// and neither kills the process nor touches its signal dispositions. The thread's mask is afterwards as it was,
// whatever it was: the code around has the right to change it at any time, so the guard remembers nothing between two
// scopes.
class SigpipeGuard {
public:
    SigpipeGuard();
    ~SigpipeGuard();
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

    // Takes back the SIGPIPE that a write in this scope has raised. A signal that somebody sent stays pending; one that
    // an earlier write of the thread raised has merged with it and goes as well. Keeps errno.
    static void Consume();

private:
    bool wasBlocked_;
};

}  // namespace ppc

#endif
