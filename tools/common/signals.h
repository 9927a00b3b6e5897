#ifndef GAKPPC_SIGNALS_H
#define GAKPPC_SIGNALS_H

#include <csignal>
#include <initializer_list>

#include "fd.h"

namespace tools {

// Turns signals into something to poll for. They are blocked from here on in this thread and those it starts later, so
// make it before the first thread.
class SignalFd {
public:
    explicit SignalFd(std::initializer_list<int> signals);

    int get() const { return fd_.get(); }

    // The next signal that came, 0 when there is none. Does not wait.
    int Take();

    // The mask from before, for programs that are started.
    const sigset_t& FormerMask() const { return formerMask_; }

private:
    sigset_t formerMask_{};
    Fd fd_;
};

}  // namespace tools

#endif
