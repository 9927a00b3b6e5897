#ifndef GAKPPC_SIGNALS_H
#define GAKPPC_SIGNALS_H

#include <csignal>
#include <initializer_list>

#include "fd.h"

namespace tools {

// A signalfd. The signals are blocked from here on in this thread and those it starts later, so create it before the
// first thread.
class SignalFd {
public:
    explicit SignalFd(std::initializer_list<int> signals);

    int get() const { return fd_.get(); }

    // The next pending signal, 0 when there is none. Does not block.
    int Next();

    // Gives the previous mask back to this thread. A signal that came meanwhile is then delivered.
    void Unblock() const { pthread_sigmask(SIG_SETMASK, &formerMask_, nullptr); }

    // The previous mask, for child processes.
    const sigset_t& FormerMask() const { return formerMask_; }

private:
    sigset_t formerMask_{};
    Fd fd_;
};

}  // namespace tools

#endif
